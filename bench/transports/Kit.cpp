/// Ours through the kit: pubsub on the monotonic system clock. Variant "rt": with real-time
/// scheduling on both sides, the thread that sends included.

#include <memory>

#include <vlxkit/Consumer.hpp>
#include <vlxkit/Logging.hpp>
#include <vlxkit/Producer.hpp>

#include "Transport.hpp"

namespace vlx::bench
{
namespace
{

constexpr TimeValue FrameDurationNs = 1'000'000;

// Before the main function, so that no join waits for it.
const kit::Logging LogOnStandardError(kit::LogLevel::Error);

kit::RealTime chooseScheduling(const Plan& plan)
{
    return {plan.variant == "rt" ? kit::RealTimeUse::Require : kit::RealTimeUse::Off};
}

} // namespace

SendFrame openStream(const Plan& plan)
{
    const auto scope =
        std::make_shared<kit::RealTimeScope>(chooseScheduling(plan)); // of this thread
    const auto producer = std::make_shared<kit::Producer>(
        kit::ProducerOptions{.name = plan.name, .realTime = chooseScheduling(plan)});
    const kit::Status opened = producer->open(kit::StreamFormat{});
    require(static_cast<bool>(opened), "open", opened.getText().c_str());
    return [scope, producer](std::uint64_t timestampNs, Bytes packet)
    {
        static_cast<void>(
            producer->send(timestampNs, FrameDurationNs, packet.subspan(sizeof(PacketHeader))));
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
