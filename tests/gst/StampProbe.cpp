// stamp_probe NAME: receives a stream of big-endian 32-bit counters, one for each sample, until
// killed. Prints for each frame the due time of sample 0 according to its timestamp, in
// nanoseconds, the frame's first counter, and the number of samples.

#include <cstdio>
#include <cstring>

#include <endian.h>
#include <unistd.h>

#include <vlxkit/Consumer.hpp>
#include <vlxkit/Logging.hpp>

int main(int argc, char** argv)
{
    if (argc != 2)
        return 2;
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    const vlx::kit::Logging logging;
    vlx::kit::ConsumerCallbacks callbacks;
    vlx::kit::StreamFormat format;
    callbacks.onFormat = [&format](const vlx::kit::StreamFormat& given) { format = given; };
    callbacks.onFrame = [&format](const vlx::kit::Frame& frame)
    {
        std::uint32_t counter = 0;
        if (frame.data.size() < sizeof(counter))
            return;
        std::memcpy(&counter, frame.data.data(), sizeof(counter));
        counter = be32toh(counter);
        std::printf(
            "%lld %u %zu\n",
            static_cast<long long>(frame.timestamp - format.toNanoseconds(counter)), counter,
            frame.data.size() / format.getBytesPerSample());
    };
    vlx::kit::Consumer consumer({.name = argv[1]}, callbacks);
    if (!consumer.start())
        return 1;
    for (;;)
        pause();
}
