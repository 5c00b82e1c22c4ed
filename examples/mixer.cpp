// Mixes three streams of S16LE, 48000 Hz, 2 channels into one, aligned by their timestamps.
//
//   mixer IN1 IN2 IN3 OUT FRAMES

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include <miscUtils/MiscUtils.hpp>
#include <vlxkit/Consumer.hpp>
#include <vlxkit/Logging.hpp>
#include <vlxkit/Producer.hpp>

constexpr vlx::TimeValue FrameNs = 10'000'000;
constexpr vlx::TimeValue LatencyNs = 50'000'000; // for which a frame is waited for
constexpr std::size_t Window = 16UL * 960;       // values that are being mixed
const vlx::kit::StreamFormat Format{audioUtils::PcmFormat::S16LE, 48000, 2};

static void add(const vlx::kit::ReceivedFrame& frame, std::size_t begin, std::vector<int>& sums)
{
    const std::size_t at = 2 * Format.toSamples(frame.getMonotonicTime().value_or(0));
    for (std::size_t i = 0; i < frame.data.size() / 2; ++i)
        if (at + i >= begin && at + i < begin + Window)
            sums[(at + i) % Window] +=
                static_cast<std::int16_t>(frame.data[2 * i] | frame.data[2 * i + 1] << 8);
}

int main(int, char** argv)
{
    const vlx::kit::Logging logging;
    std::vector<vlx::kit::Consumer> inputs;
    for (int i = 1; i <= 3; ++i)
        if (!inputs.emplace_back(vlx::kit::ConsumerOptions{.name = argv[i]}).start())
            return 1;
    vlx::kit::Producer producer({.name = argv[4]});
    if (!producer.open(Format) || !inputs[0].waitUntilJoined(std::chrono::seconds(10)))
        return 1;
    std::vector<int> sums(Window); // a ring over the values of CLOCK_MONOTONIC
    vlx::Buffer mix(1920);
    vlx::TimeValue time = miscUtils::getMonotonicSysclockTime() / FrameNs * FrameNs;
    for (long left = std::stol(argv[5]); left != 0; --left, time += FrameNs)
    {
        std::chrono::steady_clock::time_point due{std::chrono::nanoseconds(time + LatencyNs)};
        std::this_thread::sleep_until(due);
        const std::size_t begin = 2 * Format.toSamples(time);
        for (vlx::kit::Consumer& input : inputs)
            while (const auto item = input.read(std::chrono::nanoseconds(0)))
                if (const auto* const frame = std::get_if<vlx::kit::ReceivedFrame>(&*item))
                    add(*frame, begin, sums);
        for (std::size_t i = 0; i < mix.size(); ++i)
        {
            int& sum = sums[(begin + i / 2) % Window];
            mix[i] = static_cast<unsigned char>(std::clamp(sum, -32768, 32767) >> 8 * (i % 2));
            sum = i % 2 == 0 ? sum : 0; // both bytes are out
        }
        static_cast<void>(producer.send(time, FrameNs, mix)); // the next one may succeed
    }
}
