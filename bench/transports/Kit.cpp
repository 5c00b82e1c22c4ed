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
    require(producer->open(kit::StreamFormat{}), "open", producer->getProblem().c_str());
    return [scope, producer](std::uint64_t timestampNs, Bytes packet)
    { producer->send(timestampNs, FrameDurationNs, packet.subspan(sizeof(PacketHeader))); };
}

void startReceiving(const Plan& plan, FrameHandler handler)
{
    kit::ConsumerCallbacks callbacks;
    callbacks.onFrame = [handler = std::move(handler)](const kit::Frame& frame)
    { handler(frame.timestamp, frame.data); };
    auto* const consumer = // as long as the process
        new kit::Consumer(
            {.name = plan.name, .realTime = chooseScheduling(plan)}, std::move(callbacks));
    require(consumer->start(), "start", consumer->getProblem().c_str());
}

} // namespace vlx::bench
