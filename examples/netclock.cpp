// A stream on a network clock, with the clock's provider: two seconds of silence, and a consumer in
// the same process that prints the order of events. Frames arrive before the clock is synchronised,
// which takes some tenths of a second; until then the stream time is 0.
//
//   netclock NAME [ADDRESS]
//
// ADDRESS is the address of this machine as seen by the receivers; default 127.0.0.1.

#include <atomic>
#include <iostream>

#include <gst/net/gstnet.h>

#include <vlxkit/Consumer.hpp>
#include <vlxkit/Logging.hpp>
#include <vlxkit/Pace.hpp>
#include <vlxkit/Producer.hpp>

namespace
{

constexpr int NumFrames = 200;

std::atomic<int> frames = 0;
std::atomic<bool> synchronized = false;

void tell(const vlx::kit::Consumer& consumer, vlx::TimeValue timestamp)
{
    const vlx::TimeValue now = consumer.getStreamTime();
    if (++frames == 1)
        std::cout << "first frame, stream time " << now << std::endl;
    if (now == 0 || synchronized.exchange(true))
        return;
    std::cout << "synchronised at frame " << frames << ", whose age is "
              << (static_cast<double>(now) - static_cast<double>(timestamp)) / 1e6 << " ms"
              << std::endl;
}

} // namespace

int main(int argc, char** argv)
{
    const vlx::kit::Logging logging;
    gst_init(nullptr, nullptr);

    // The served clock is also the clock of the timestamps.
    GstClock* const clock = gst_system_clock_obtain();
    const char* const address = argc > 2 ? argv[2] : "127.0.0.1";
    GstNetTimeProvider* const provider = gst_net_time_provider_new(clock, address, 0);
    if (provider == nullptr)
        return 1;
    gint port = 0; // chosen by the kernel
    g_object_get(provider, "port", &port, nullptr);

    {
        vlx::kit::Producer producer({
            .name = argv[1],
            .clock = vlx::TimeSyncProtocol::GstNetClock,
            .clockAddress = address,
            .clockPort = static_cast<std::uint16_t>(port),
        });
        vlx::kit::Consumer consumer(
            {.name = argv[1]}, {.onFrame = [&consumer](const vlx::kit::Frame& frame)
                                { tell(consumer, frame.timestamp); }});
        if (!producer.open({audioUtils::PcmFormat::S16LE, 48000, 2}) || !consumer.start())
            return 1;
        const vlx::Buffer silence(1920);
        vlx::kit::Pace pace(48000);
        pace.begin(gst_clock_get_time(clock)); // this machine's CLOCK_MONOTONIC, as sleepAfter()
        for (int i = 0; i < NumFrames; ++i)
        {
            if (!producer.send(pace.getTimestamp(), pace.getDuration(480), silence))
                return 1;
            pace.sleepAfter(480);
        }
    }
    gst_object_unref(provider);
    gst_object_unref(clock);
    std::cout << frames << " of " << NumFrames << " frames" << std::endl;
    return synchronized ? 0 : 1;
}
