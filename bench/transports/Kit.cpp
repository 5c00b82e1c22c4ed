/// Ours through the kit: pubsub on the monotonic system clock. Variants that begin with "shared":
/// frames in shared memory. Ending with "acquire": the sender finds them there, except for what
/// identifies a frame. Ending with "rt": real-time scheduling on both sides, the thread that sends
/// included.

#include <memory>

#include <vlxkit/Consumer.hpp>
#include <vlxkit/Logging.hpp>
#include <vlxkit/Producer.hpp>

#include "Transport.hpp"

namespace vlx::bench
{
namespace
{

// Before the main function, so that no join waits for it.
const kit::Logging LogOnStandardError(kit::LogLevel::Error);

kit::RealTime chooseScheduling(const Plan& plan)
{
    return {plan.variant.ends_with("rt") ? kit::RealTimeUse::Require : kit::RealTimeUse::Off};
}

kit::FrameMemory makeFrame(kit::Producer& producer, Bytes media)
{
    kit::FrameMemory frame = producer.acquire(media.size());
    std::memcpy(frame.data.get(), media.data(), TagBytes);
    frame.data.get()[media.size() - 1] = media.back();
    return frame;
}

} // namespace

SendFrame openStream(const Plan& plan)
{
    const auto scope =
        std::make_shared<kit::RealTimeScope>(chooseScheduling(plan)); // of this thread
    kit::ProducerOptions options{.name = plan.name, .realTime = chooseScheduling(plan)};
    const TimeValue durationNs = NsPerSecond / plan.rate;
    if (plan.variant.starts_with("shared"))
    {
        options.sharedMemory = {
            kit::Carriage::Shared, plan.bytes, std::chrono::nanoseconds(durationNs)};
        options.onNotice = [](const std::string& notice) // then it would measure other frames
        { require(false, "send", notice.c_str()); };
    }
    const auto producer = std::make_shared<kit::Producer>(options);
    const kit::Status opened = producer->open(kit::StreamFormat{});
    require(static_cast<bool>(opened), "open", opened.getText().c_str());
    const bool isAcquired = plan.variant.ends_with("acquire");
    return [scope, producer, durationNs, isAcquired](std::uint64_t timestampNs, Bytes packet)
    {
        const Bytes media = packet.subspan(sizeof(PacketHeader));
        static_cast<void>(
            isAcquired ? producer->send(timestampNs, durationNs, makeFrame(*producer, media))
                       : producer->send(timestampNs, durationNs, media));
    };
}

void startReceiving(const Plan& plan, FrameHandler handler)
{
    kit::ConsumerCallbacks callbacks;
    callbacks.onFrame = [handler = std::move(handler)](const kit::Frame& frame)
    { handler(frame.timestamp, frame.data); };
    auto* const consumer = // as long as the process
        new kit::Consumer(
            {.name = plan.name, .realTime = chooseScheduling(plan)}, std::move(callbacks));
    const kit::Status started = consumer->start();
    require(static_cast<bool>(started), "start", started.getText().c_str());
}

} // namespace vlx::bench
