// Smallest producer: sends a tone under a name until Ctrl-C, or for some seconds.
//
//   producer NAME [SECONDS]

#include <cmath>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <iostream>
#include <numbers>
#include <string>

#include <log4cplus/configurator.h>
#include <log4cplus/initializer.h>

#include <miscUtils/MiscUtils.hpp>
#include <vlx/VlxPayload.hpp>
#include <vlx/VlxSender.hpp>

namespace
{

constexpr std::uint32_t SampleRate = 48000;
constexpr std::uint64_t SamplesPerFrame = 480;
constexpr vlx::TimeValue FrameDurationNs = 10'000'000;
constexpr vlx::TimeValue TailWaitNs = 100'000'000;

// One channel of S16LE.
void fillWithTone(vlx::Buffer& frame, std::uint64_t firstSample)
{
    frame.clear();
    for (std::uint64_t i = firstSample; i < firstSample + SamplesPerFrame; ++i)
    {
        const double phase = 2 * std::numbers::pi * 440 * static_cast<double>(i) / SampleRate;
        const auto sample = static_cast<std::uint16_t>(std::lrint(8000 * std::sin(phase)));
        frame.push_back(static_cast<std::uint8_t>(sample & 0xFF));
        frame.push_back(static_cast<std::uint8_t>(sample >> 8));
    }
}

// Sleeps up to a time of the monotonic clock. Returns true if a stop signal came first.
bool isStoppedBefore(vlx::TimeValue deadline, const sigset_t& stopSignals)
{
    const vlx::TimeValue now = miscUtils::getMonotonicSysclockTime();
    const vlx::TimeValue left = deadline > now ? deadline - now : 0;
    const timespec timeout = {
        static_cast<time_t>(left / 1'000'000'000), static_cast<long>(left % 1'000'000'000)};
    return sigtimedwait(&stopSignals, nullptr, &timeout) > 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2)
        return 2;
    const std::uint64_t numFrames = argc > 2 ? std::stoull(argv[2]) * 100 : UINT64_MAX;

    log4cplus::Initializer logging;
    log4cplus::BasicConfigurator(log4cplus::Logger::getDefaultHierarchy(), true).configure();
    log4cplus::Logger::getRoot().setLogLevel(log4cplus::WARN_LOG_LEVEL);

    // Blocked before any thread exists, so that only the wait below sees them.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    sigprocmask(SIG_BLOCK, &stopSignals, nullptr);

    vlx::PcmPayloader payloader; // outlives the sender
    payloader.setNewFormat(SampleRate, 1, audioUtils::PcmFormat::S16LE);

    vlx::Sender sender;
    if (!sender.initializeSender(
            argv[1], "", "", 0, vlx::TimeSyncProtocol::MonotonicSystemClock,
            vlx::NanomsgProtocol::PubSub))
        return 1; // the log says why; without TMPDIR the directory /tmp/vlx must exist
    sender.setCurrentPayloader(payloader);
    sender.startNewSequence(); // at once: whoever joins later is handed the announcement

    const vlx::TimeValue start = miscUtils::getMonotonicSysclockTime();
    vlx::Buffer frame;
    for (std::uint64_t i = 0; i < numFrames; ++i)
    {
        if (isStoppedBefore(start + i * FrameDurationNs, stopSignals))
            break;
        fillWithTone(frame, i * SamplesPerFrame);
        sender.sendMediaData(start + i * FrameDurationNs, FrameDurationNs, frame);
    }

    // What has not left the process when the sender shuts down would be lost.
    isStoppedBefore(miscUtils::getMonotonicSysclockTime() + TailWaitNs, stopSignals);
    sender.shutdownSender();
    return 0;
}
