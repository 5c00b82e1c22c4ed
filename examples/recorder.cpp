// Records two streams of S16LE, 48000 Hz, 2 channels into one of 4 channels, aligned by their
// timestamps: what was due at one time stands in one sample. What is missing is silence.
//
//   recorder IN1 IN2 SECONDS | sox -t raw -r 48000 -e signed -b 16 -c 4 - out.wav

#include <algorithm>
#include <chrono>
#include <iostream>
#include <string>
#include <vector>

#include <vlxkit/Consumer.hpp>
#include <vlxkit/Logging.hpp>

int main(int, char** argv)
{
    const vlx::kit::Logging logging;
    using Clock = std::chrono::steady_clock; // it is CLOCK_MONOTONIC
    const vlx::kit::StreamFormat format{audioUtils::PcmFormat::S16LE, 48000, 4};
    vlx::kit::Consumer inputs[] = {
        vlx::kit::Consumer(vlx::kit::ConsumerOptions{.name = argv[1]}),
        vlx::kit::Consumer(vlx::kit::ConsumerOptions{.name = argv[2]})};
    for (vlx::kit::Consumer& input : inputs)
        if (!input.start() || !input.waitUntilJoined(std::chrono::seconds(10)))
            return 1;

    const std::uint64_t length = std::stoul(argv[3]) * format.rate;
    const auto start = static_cast<vlx::TimeValue>(Clock::now().time_since_epoch().count());
    const Clock::time_point end = Clock::now() + std::chrono::seconds(std::stoul(argv[3]));
    vlx::Buffer recording(length * format.getBytesPerSample());
    for (std::size_t channel = 0; channel < 2; ++channel)
    {
        // The other stream waits in its queue: its limits allow for that.
        inputs[1 - channel].setQueueLimits(
            {.time = std::chrono::hours(1), .bytes = 0, .frames = 0});
        const auto wait = [&] { return std::max(end - Clock::now(), Clock::duration(0)); };
        while (const auto item = inputs[channel].read(wait() + std::chrono::seconds(1)))
        {
            const auto* const frame = std::get_if<vlx::kit::ReceivedFrame>(&*item);
            const auto time = frame != nullptr ? frame->getMonotonicTime() : std::nullopt;
            if (time && *time >= start + format.toNanoseconds(length))
                break;
            const std::uint64_t first =
                time && *time >= start ? format.toSamples(*time - start) : length;
            for (std::size_t i = 0; first + i < length && i < frame->data.size() / 4; ++i)
                std::copy_n(&frame->data[4 * i], 4, &recording[8 * (first + i) + 4 * channel]);
        }
    }
    std::cout.write(
        reinterpret_cast<const char*>(recording.data()),
        static_cast<std::streamsize>(recording.size()));
}
