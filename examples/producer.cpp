#include <chrono>
#include <iostream>
#include <thread>

#include <miscUtils/MiscUtils.hpp>
#include <vlxkit/Logging.hpp>
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
    // Receivers that are waiting miss no frame.
    if (!producer.waitForReceivers(1, std::chrono::milliseconds(100)))
        std::cerr << "no receiver yet" << std::endl;
    const vlx::Buffer silence(1920); // 480 samples of 2 channels of 16 bits
    const vlx::TimeValue begin = miscUtils::getMonotonicSysclockTime();
    for (vlx::TimeValue time = begin; time < begin + 5'000'000'000; time += 10'000'000)
    {
        if (!producer.send(time, 10'000'000, silence))
            return 1;
        std::this_thread::sleep_until(
            std::chrono::steady_clock::time_point(std::chrono::nanoseconds(time + 10'000'000)));
    }
}
