#include <chrono>
#include <iostream>

#include <miscUtils/MiscUtils.hpp>
#include <vlxkit/Logging.hpp>
#include <vlxkit/Pace.hpp>
#include <vlxkit/Producer.hpp>

int main()
{
    const vlx::kit::Logging logging; // warnings, on standard error
    vlx::kit::Producer producer({.name = "kitchen-radio"});
    const auto opened = producer.open({audioUtils::PcmFormat::S16LE, 48000, 2});
    if (!opened)
    {
        std::cerr << opened.getText() << std::endl;
        return 1;
    }
    // Receivers that are already waiting join first.
    if (!producer.waitForReceivers(1, std::chrono::milliseconds(100)))
        std::cerr << "no receiver yet" << std::endl;
    const vlx::Buffer silence(1920); // 480 samples of 2 channels of 16 bits
    vlx::kit::Pace pace(48000);
    pace.begin(miscUtils::getMonotonicSysclockTime());
    for (int frame = 0; frame < 500; ++frame)
    {
        if (!producer.send(pace.getTimestamp(), pace.getDuration(480), silence))
            return 1;
        pace.sleepAfter(480);
    }
}
