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
    if (!producer.open({audioUtils::PcmFormat::S16LE, 48000, 2}))
    {
        std::cerr << producer.getProblem() << std::endl;
        return 1;
    }
    producer.waitForReceivers(1, std::chrono::milliseconds(100)); // who waits misses nothing
    const vlx::Buffer silence(1920); // 480 samples of 2 channels of 16 bits
    const vlx::TimeValue begin = miscUtils::getMonotonicSysclockTime();
    for (vlx::TimeValue time = begin; time < begin + 5'000'000'000; time += 10'000'000)
    {
        producer.send(time, 10'000'000, silence);
        std::this_thread::sleep_until(
            std::chrono::steady_clock::time_point(std::chrono::nanoseconds(time + 10'000'000)));
    }
}
