/// Ours: pubsub on the monotonic system clock. Variant "bell": rings in the base directory once the
/// stream stands, as the kit does, so that waiting receivers look again at once. "bell-again": and
/// announces the sequence once more a moment later, for a receiver that was just joining and has
/// missed it.

#include <limits>
#include <memory>

#include <fcntl.h>
#include <log4cplus/configurator.h>
#include <log4cplus/logger.h>
#include <unistd.h>

#include <miscUtils/MiscUtils.hpp>
#include <vlx/VlxPayload.hpp>
#include <vlx/VlxReceiver.hpp>
#include <vlx/VlxSender.hpp>

#include "Transport.hpp"

namespace vlx::bench
{
namespace
{

constexpr TimeValue FrameDurationNs = 1'000'000;
constexpr TimeValue Never = std::numeric_limits<TimeValue>::max();
constexpr TimeValue AnnounceAgainNs = 20'000'000;

void ringBell(const std::string& directory)
{
    const std::string path = directory + "/.bell-VlxSender-" + std::to_string(getpid());
    close(open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0600));
    unlink(path.c_str());
}

struct SendingSide
{
    PcmPayloader payloader;
    Sender sender;
    TimeValue announceAgainNs = Never;
};

struct ReceivingSide
{
    PcmDepayloader depayloader;
    Receiver receiver;
};

// Before the main function, so that no join waits for it.
const bool LogIsQuiet = []
{
    log4cplus::BasicConfigurator(log4cplus::Logger::getDefaultHierarchy(), true).configure();
    log4cplus::Logger::getRoot().setLogLevel(log4cplus::ERROR_LOG_LEVEL);
    return true;
}();

} // namespace

SendFrame openStream(const Plan& plan)
{
    const auto side = std::make_shared<SendingSide>();
    side->payloader.setNewFormat(48000, 2, audioUtils::PcmFormat::S16LE);
    require(
        side->sender.initializeSender(
            plan.name, "", "", 0, TimeSyncProtocol::MonotonicSystemClock, NanomsgProtocol::PubSub),
        "initializeSender", "failed");
    side->sender.setCurrentPayloader(side->payloader);
    side->sender.startNewSequence();
    if (plan.variant.starts_with("bell"))
        ringBell(plan.directory);
    if (plan.variant == "bell-again")
        side->announceAgainNs = miscUtils::getMonotonicSysclockTime() + AnnounceAgainNs;
    return [side](TimeValue timestampNs, Bytes packet)
    {
        if (timestampNs >= side->announceAgainNs)
        {
            side->sender.startNewSequence();
            side->announceAgainNs = Never;
        }
        side->sender.sendMediaData(
            timestampNs, FrameDurationNs, packet.subspan(sizeof(PacketHeader)));
    };
}

void startReceiving(const Plan& plan, FrameHandler handler)
{
    auto* const side = new ReceivingSide; // as long as the process
    side->receiver.addDepayloader(side->depayloader);
    side->receiver.setMediaDataCallback(
        [handler = std::move(handler)](TimeValue timestamp, TimeValue, const Buffer& media)
        { handler(timestamp, media); });
    require(side->receiver.initializeReceiver(plan.name), "initializeReceiver", "failed");
}

} // namespace vlx::bench
