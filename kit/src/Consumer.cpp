#include <atomic>
#include <map>
#include <memory>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>
#include <pthread.h>
#include <unistd.h>

#include <miscUtils/MiscUtils.hpp>
#include <vlxkit/BaseDirectory.hpp>
#include <vlxkit/Consumer.hpp>
#include <vlxkit/Discovery.hpp>
#include <vlxkit/Media.hpp>
#include <vlxkit/PromptStop.hpp>
#include <vlxkit/Text.hpp>

#include "CallScope.hpp"
#include "ChannelCheck.hpp"
#include "CodecRelay.hpp"
#include "ConsumerRecord.hpp"
#include "FrameQueue.hpp"
#include "Gatekeeper.hpp"
#include "RetryPause.hpp"
#include "RingCodec.hpp"
#include "SenderQuestion.hpp"
#include "WakeupEvent.hpp"
#include "base/AbstractName.hpp"
#include "base/Assertions.hpp"
#include "base/Descriptors.hpp"
#include "base/ForkedCopy.hpp"

namespace vlx::kit
{

namespace
{

using Kind = ConsumerEvent::Kind;
using ClockType = Receiver::StreamClockType;
using miscUtils::getMonotonicSysclockTime;

constexpr TimeValue NsPerMs = 1'000'000;

constexpr int WatchIntervalMs = 100;
// A receiver connects without a pause to a peer that closes at once: looked at soon.
constexpr int FirstWatchIntervalMs = 1;

/// From when on a receiver that connects is suspicious.
struct ConnectingLimits
{
    TimeValue durationNs; // a sender that listens is normally joined within milliseconds
    int numChanges;       // of the connection, from one look to the next
};

constexpr ConnectingLimits NormalLimits = {20 * NsPerMs, 3};
constexpr ConnectingLimits WaryLimits = {3 * NsPerMs, 2};

// A receiver that was watched for so long starts without the setbacks before.
constexpr TimeValue CalmNs = 10'000 * NsPerMs;
// With ConsumerOptions::anyCodec a sender could announce new ones for ever.
constexpr std::size_t MaxCodecs = 64;

log4cplus::Logger logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("Vellox.Kit"));

TimeValue getEnd(int durationMs)
{
    return getMonotonicSysclockTime() + static_cast<TimeValue>(durationMs) * NsPerMs;
}

/// @return the clock as Receiver::getStreamClockType() tells it
ClockType toClockType(const InitialInfo& info)
{
    if (info.timeSyncProtocol == TimeSyncProtocol::MonotonicSystemClock)
        return ClockType::MonotonicSystemClock;
    return info.timeSyncPort != 0 ? ClockType::SyncedNetClock : ClockType::NoClock;
}

} // unnamed namespace

const char* toString(ConsumerEvent::Kind kind)
{
    switch (kind)
    {
    case Kind::Joined:
        return "joined";
    case Kind::Lost:
        return "lost";
    case Kind::Stalled:
        return "stalled";
    case Kind::CannotPlay:
        return "cannot play";
    case Kind::NotPermitted:
        return "not permitted";
    case Kind::NotASender:
        return "not a sender";
    case Kind::Failed:
        return "failed";
    }
    return "unknown";
}

/// The receiver's callbacks run on its worker. Everything else is done by the keeper, which reports
/// events only while the receiver is shut down: so no two callbacks overlap.
class Consumer::Impl
{
public:
    Impl(ConsumerOptions options, ConsumerCallbacks callbacks);
    ~Impl();

    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    void addCodec(std::unique_ptr<CodecRelay> codec); // while the receiver is shut down
    Status start();
    void stop();
    void requestStop();
    void rejoin();
    void pause(bool on);
    TimeValue getStreamTime() const;
    ConsumerClock getClock() const;
    ConsumerStatistics getStatistics() const;

    FrameQueue& getQueue()
    {
        return m_queue;
    }

    const ConsumerRecord& getRecord() const
    {
        return m_record;
    }

    bool usesQueue() const
    {
        return !m_callbacks.onFrame;
    }

    bool isForkedCopy() const
    {
        return vlx::isForkedCopy(m_process);
    }

private:
    /// What ends the keeper's watch over the receiver.
    enum class Ending
    {
        Stop,
        Stall,
        Doubt, // about the sender, for a closer look
        Flapping,
        MissedSequence,
        Request,
        WorkerEnded,
    };

    // Of the worker.
    void handleState(Receiver::State state);
    void handleSequence(Depayloader& depayloader);
    void handleFrame(TimeValue timestamp, TimeValue duration);
    std::optional<std::int64_t> measureClockOffset(TimeValue arrival) const;
    void handleRefusedFrame(FrameRefusal refusal);
    std::optional<std::string> checkSender(const ByteView& packet, uid_t user);

    // Of the keeper.
    void keep();
    bool approachSender();
    SenderProbe askSender();
    bool startReceiver();
    Ending superviseReceiver();
    CodecRelay* findCodec(std::uint32_t fourcc);
    std::string findCodecProblem(const SenderProbe& answer);
    bool isSuspicious();
    bool isUnanswered(const ConnectingLimits& limits, bool isLate);
    void stopReceiver();
    void reportEnd(Ending ending);
    void handleEnding(Ending ending);
    void take(const Gatekeeper::Step& step);
    void rest(int durationMs);

    // Of any.
    void tell(Kind kind, std::string text, std::uint32_t fourcc = 0);

    // Of the thread that starts and stops.
    void notify(const std::string& restriction) const;
    Status prepare();
    void endKeeper();
    void abandonKeeper();

    // Constant.
    const ConsumerOptions m_options;
    const ConsumerCallbacks m_callbacks;

    // Of the thread that starts and stops.
    std::thread m_keeper;
    pid_t m_process = 0; // that has the keeper; 0: none has yet
    bool m_isPaused = false;

    // Of the keeper, while it runs.
    std::string m_directory;                  // that the receiver watches
    std::optional<SenderQuestion> m_question; // kept while it is not answered
    TimeValue m_askedAt = 0;                  // by the watch
    std::string m_standingConnection;         // of the receiver, at the last look
    int m_numChanges = 0;                     // of it, from one look to the next
    Gatekeeper m_gate;                        // by the worker as well, for greetings

    // Of any thread.
    const WakeupEvent m_wakeup;
    std::atomic<bool> m_isCalled = false; // start() or stop() is in progress
    std::atomic<bool> m_started = false;
    std::atomic<bool> m_stopRequested = false;
    std::atomic<bool> m_missedSequence = false;
    std::atomic<bool> m_rejoinRequested = false;
    CallbackThread m_callbackThread{};
    std::atomic<bool> m_isDoubtful = false;      // the sender: refused, or left without a frame
    std::atomic<bool> m_workerEnded = false;     // unasked
    std::atomic<bool> m_givenUp = false;         // the reason for that: a channel cannot be opened
    std::atomic<bool> m_endedByKeeper = false;   // whatever ends the connection now
    std::atomic<bool> m_endIsUnreported = false; // of a connection that the keeper has ended
    ConsumerRecord m_record;
    FrameQueue m_queue; // empty with a frame callback

    // Of the worker.
    // Of the keeper as well, while the receiver is shut down.
    std::optional<Gatekeeper::Obstacle> m_refusal;
    ChannelCheck m_channel; // that is in use: its directory stays open
    ConsumerClock m_announcedClock;
    ClockType m_clock = ClockType::Undetermined;
    CodecRelay* m_codec = nullptr;                                 // of the last sequence
    std::shared_ptr<const FrameFormat> m_format;                   // of its frames, for the queue
    std::map<std::uint32_t, std::unique_ptr<CodecRelay>> m_codecs; // that the receiver knows
    RingDepayloader m_ring{[this](std::uint32_t fourcc) { return findCodec(fourcc); }};
    const std::shared_ptr<FramePool> m_pool = std::make_shared<FramePool>();

    Receiver m_receiver; // last: its threads use all of the above
};

Consumer::Impl::Impl(ConsumerOptions options, ConsumerCallbacks callbacks)
    : m_options(std::move(options)),
      m_callbacks(std::move(callbacks)),
      m_gate(
          m_options.name,
          m_options.senderUser,
          [this](const SenderProbe& answer) { return findCodecProblem(answer); },
          m_options.pubSubOnly),
      m_record(static_cast<TimeValue>(m_options.stallTimeout.count())),
      m_queue(m_options.queue)
{
    addCodec(std::make_unique<PcmRelay>());
    m_receiver.addDepayloader(m_ring);
    m_receiver.setStateChangedCallback([this](Receiver::State state) { handleState(state); });
    m_receiver.setNewSequenceCallback([this](Depayloader& depayloader)
                                      { handleSequence(depayloader); });
    m_receiver.setMediaDataCallback([this](TimeValue timestamp, TimeValue duration, const Buffer&)
                                    { handleFrame(timestamp, duration); });
    m_receiver.setRefusedFrameCallback([this](FrameRefusal refusal)
                                       { handleRefusedFrame(refusal); });
    m_receiver.setInitialInfoCheckCallback(
        [this](const ByteView& packet, const PeerCredentials& peer)
        { return checkSender(packet, peer.user); });
    m_receiver.setMaxSidechannelMessageSize(MaxSidechannelMessageBytes);
    m_receiver.setConnectionAttemptFailedCallback([this] { m_givenUp = true; });
}

Consumer::Impl::~Impl()
{
    stop();
}

void Consumer::Impl::addCodec(std::unique_ptr<CodecRelay> codec)
{
    m_codec = nullptr; // may be the one that is replaced
    m_receiver.addDepayloader(*codec);
    m_codecs[codec->getFourcc()] = std::move(codec);
}

CodecRelay* Consumer::Impl::findCodec(std::uint32_t fourcc)
{
    const auto found = m_codecs.find(fourcc);
    return found == m_codecs.end() ? nullptr : found->second.get();
}

std::string Consumer::Impl::findCodecProblem(const SenderProbe& answer)
{
    const std::uint32_t fourcc = *answer.fourcc;
    CodecRelay* const codec = findCodec(fourcc);
    bool isAccepted = false;
    if (codec != nullptr)
    {
        isAccepted = codec->processCodecHeader(answer.codecHeader);
        codec->reset();
    }
    else if (m_options.anyCodec && fourcc != RingFourcc && m_codecs.size() < MaxCodecs)
    {
        addCodec(std::make_unique<CodecRelay>(fourcc));
        isAccepted = true;
    }
    const auto caps = getMediaCaps({fourcc, answer.codecHeader});
    if (codec != nullptr && !isAccepted && caps)
        return "its caps are not supported: " + shortenMediaCaps(*caps);
    if (!isAccepted && caps)
        return "its media is " + shortenMediaCaps(*caps) +
               ", not PCM audio; use gst-launch-1.0 vlxsrc socket-name=" + quote(m_options.name) +
               " ! ...";
    if (!isAccepted)
        return "its codec " + quote(toFourccText(fourcc)) +
               " is unknown here, or its header is not supported";
    return answer.ring ? RingReader().open(*answer.ring, *answer.user) : std::string();
}

Status Consumer::Impl::start()
{
    assert(
        !CallbackScope::isInside(m_callbackThread) &&
        "start() inside a callback: call it on another thread");
    const ExclusiveCall call(m_isCalled);
    assert(call.isAlone() && "start() beside start() or stop(): call them on one thread at a time");
    if (m_keeper.joinable() && !m_stopRequested)
        return {};
    endKeeper();
    if (Status status = prepare(); !status)
        return status;
    m_stopRequested = false;
    m_refusal.reset();
    m_gate.reset(m_options.anyCodec);
    m_record.onStart(getMonotonicSysclockTime());
    m_record.hold(m_isPaused);
    if (usesQueue())
        m_queue.begin();
    m_started = true;
    m_process = ::getpid();
    try
    {
        m_keeper = std::thread([this] { keep(); });
    }
    catch (const std::system_error& error)
    {
        m_started = false;
        m_queue.end();
        m_record.onStop();
        return {ErrorCode::OutOfResources, std::string("cannot start a thread: ") + error.what()};
    }
    return {};
}

Status Consumer::Impl::prepare()
{
    if (m_options.name.empty() || m_options.name.size() > MaxSocketNameLength)
        return {
            ErrorCode::NameInvalid,
            "the name of a stream has 1 to " + std::to_string(MaxSocketNameLength) + " bytes"};
    if (!m_wakeup.isOpen())
        return {ErrorCode::OutOfResources, "no descriptor is left"};

    const RealTimeScope realTime(m_options.realTime);
    if (!realTime.getStatus())
    {
        if (m_options.realTime.use == RealTimeUse::Require)
            return realTime.getStatus();
        notify(realTime.getStatus().getText());
    }

    const BaseDirectory base =
        prepareBaseDirectory(BaseDirectoryUse::Receive, m_options.baseDirectory);
    if (!base.status)
        return base.status;
    if (!base.notice.empty())
        notify(base.notice);
    m_directory = base.path;
    m_receiver.setBaseDirectory(m_directory);
    if (!base.writable)
        notify(quote(base.path) + " is not writable; stopping can take up to 5 seconds");
    return {};
}

void Consumer::Impl::notify(const std::string& restriction) const
{
    if (m_options.onNotice)
        m_options.onNotice(restriction);
    else
        LOG4CPLUS_WARN(logger, "Consumer of " << quote(m_options.name) << ": " << restriction);
}

void Consumer::Impl::stop()
{
    if (isForkedCopy())
        return abandonKeeper();
    assert(
        !CallbackScope::isInside(m_callbackThread) &&
        "stop() or destruction inside a callback: call requestStop() there");
    const ExclusiveCall call(m_isCalled);
    assert(call.isAlone() && "stop() beside start() or stop(): call them on one thread at a time");
    endKeeper();
}

void Consumer::Impl::requestStop()
{
    m_stopRequested = true;
    m_wakeup.wake();
}

void Consumer::Impl::rejoin()
{
    m_rejoinRequested = true;
    m_wakeup.wake();
}

void Consumer::Impl::pause(bool on)
{
    m_isPaused = on;
    m_queue.pause(on);
    if (!on)
        m_record.hold(false);
}

void Consumer::Impl::endKeeper()
{
    if (!m_keeper.joinable())
        return;
    requestStop();
    m_keeper.join();
}

/// In a forked child, which has no keeper: nothing may be waited for, and nothing be changed that
/// is shared with the parent.
void Consumer::Impl::abandonKeeper()
{
    makeAnew(m_keeper);
    if (m_question)
        m_question->abandon();
    m_queue.abandon();
    m_receiver.shutdownReceiver();
    m_started = false;
}

TimeValue Consumer::Impl::getStreamTime() const
{
    return m_receiver.getCurrentStreamTime();
}

ConsumerClock Consumer::Impl::getClock() const
{
    ConsumerClock clock = m_record.getClock();
    const TimeValue now = getMonotonicSysclockTime();
    const TimeValue streamTime =
        clock.type == ClockType::SyncedNetClock ? m_receiver.getCurrentStreamTime() : 0;
    if (clock.type == ClockType::MonotonicSystemClock)
        clock.offsetNs = 0;
    else if (streamTime != 0)
        clock.offsetNs = static_cast<std::int64_t>(streamTime - now);
    clock.isSynchronized = clock.offsetNs.has_value();
    return clock;
}

ConsumerStatistics Consumer::Impl::getStatistics() const
{
    ConsumerStatistics statistics = m_record.getStatistics();
    statistics.dropped = m_queue.getNumDropped();
    statistics.state = m_receiver.getState();
    if (statistics.state == Receiver::State::Idle && m_started)
        statistics.state = Receiver::State::Connecting;
    if (statistics.clock != ClockType::Undetermined)
    {
        const ConsumerClock clock = getClock();
        statistics.clockSynchronized = clock.isSynchronized;
        statistics.clockOffsetNs = clock.offsetNs.value_or(0);
    }
    return statistics;
}

void Consumer::Impl::handleState(Receiver::State state)
{
    const TimeValue now = getMonotonicSysclockTime();
    if (state == Receiver::State::Running)
    {
        reportEnd(Ending::Stop); // of a connection that was lost as the keeper wanted to end it
        m_record.onJoined(now, m_announcedClock);
        tell(Kind::Joined, "joined " + quote(m_options.name));
        return;
    }
    m_channel = {};
    const bool byPeer = !m_endedByKeeper;
    const bool hadFrame = m_record.hasFrame();
    const bool wasJoined = m_record.onEnded(now, byPeer);
    if (state == Receiver::State::Connecting)
        m_record.onConnecting(now);
    if (!byPeer)
    {
        m_endIsUnreported = m_endIsUnreported || wasJoined;
        return;
    }
    if (wasJoined)
        tell(Kind::Lost, "lost " + quote(m_options.name) + ", waiting for it to return");
    m_isDoubtful = m_isDoubtful || (wasJoined && !hadFrame);
    m_workerEnded = state == Receiver::State::Idle;
    if (wasJoined || m_workerEnded)
        m_wakeup.wake();
}

void Consumer::Impl::handleSequence(Depayloader& depayloader)
{
    m_clock = m_receiver.getStreamClockType();
    const bool isRing = &depayloader == &m_ring;
    CodecRelay& codec = isRing ? *m_ring.getCodec() : static_cast<CodecRelay&>(depayloader);
    if (!isRing)
        m_ring.reset();
    CodecRelay* const former = std::exchange(m_codec, &codec);
    // A decoder that misses frames is out of step, whatever its next header is.
    if (former != nullptr && former != &codec)
        former->forgetHeader();
    const FrameFormat format = codec.getFormat();
    const auto* const pcm = std::get_if<StreamFormat>(&format);
    m_record.onSequence(
        m_clock, pcm != nullptr ? std::optional(*pcm) : std::nullopt, codec.hasChanged());
    if (!codec.hasChanged())
        return;
    if (usesQueue())
    {
        m_format = std::make_shared<const FrameFormat>(format);
        std::visit([this](const auto& item) { m_queue.put(item); }, format);
    }
    const CallbackScope scope(m_callbackThread);
    if (pcm != nullptr && m_callbacks.onFormat)
        m_callbacks.onFormat(*pcm);
    if (pcm == nullptr && m_callbacks.onCodec)
        m_callbacks.onCodec(std::get<CodecFormat>(format));
}

void Consumer::Impl::handleFrame(TimeValue timestamp, TimeValue duration)
{
    if (m_ring.takeLoss())
        return m_record.onLostFrame();
    Buffer& data = m_codec->getFrame();
    Frame frame{{}, data};
    frame.timestamp = timestamp;
    frame.duration = duration;
    frame.arrival = getMonotonicSysclockTime();
    frame.clock = m_clock;
    frame.clockOffsetNs = measureClockOffset(frame.arrival);
    const TimeValue streamTime =
        frame.clockOffsetNs ? frame.arrival + static_cast<TimeValue>(*frame.clockOffsetNs) : 0;
    const ConsumerRecord::Place place =
        m_record.onFrame(timestamp, duration, data.size(), frame.arrival, streamTime);
    frame.gapNs = place.gapNs;
    frame.isFirst = place.isFirst;
    if (usesQueue())
    {
        const std::shared_ptr<FramePool> pool = m_codec->reusesMemory() ? m_pool : nullptr;
        Buffer next = pool ? pool->take() : Buffer();
        ReceivedFrame received(frame, std::exchange(data, std::move(next)), pool);
        received.format = m_format;
        m_queue.putFrame(std::move(received), place.lengthNs);
        return;
    }
    const CallbackScope scope(m_callbackThread);
    m_callbacks.onFrame(frame);
}

std::optional<std::int64_t> Consumer::Impl::measureClockOffset(TimeValue arrival) const
{
    if (m_clock == ClockType::MonotonicSystemClock)
        return 0;
    const TimeValue streamTime =
        m_clock == ClockType::SyncedNetClock ? m_receiver.getCurrentStreamTime() : 0;
    if (streamTime == 0)
        return std::nullopt;
    return static_cast<std::int64_t>(streamTime - arrival);
}

void Consumer::Impl::handleRefusedFrame(FrameRefusal refusal)
{
    if (refusal != FrameRefusal::UnknownSequence ||
        !m_record.onUnknownSequence(getMonotonicSysclockTime()))
        return;
    m_missedSequence = true;
    m_wakeup.wake();
}

/// @return what the receiver should use as main channel; not set if it must not join
std::optional<std::string> Consumer::Impl::checkSender(const ByteView& packet, uid_t user)
{
    if (m_isDoubtful) // the keeper will ask it first
        return std::nullopt;
    const std::optional<InitialInfo> info = readInitialInfo(packet);
    m_channel = info ? checkChannel(*info, user) : ChannelCheck();
    m_refusal = m_gate.judgeGreeting(info, user, m_channel);
    if (!m_refusal)
    {
        m_ring.setSender(user);
        m_announcedClock = {
            .type = toClockType(*info),
            .address = info->timeSyncIPAddress,
            .port = info->timeSyncPort};
        return m_record.onChecked(m_announcedClock, m_endedByKeeper)
                   ? std::optional(m_channel.getURI())
                   : std::nullopt;
    }
    m_channel = {};
    m_isDoubtful = true;
    m_wakeup.wake();
    return std::nullopt;
}

void Consumer::Impl::keep()
{
    ::pthread_setname_np(::pthread_self(), "vlx-keeper");
    while (!m_stopRequested)
    {
        if ((m_gate.mustAsk() && !approachSender()) || !startReceiver())
            continue;
        const TimeValue begin = getMonotonicSysclockTime();
        const Ending ending = superviseReceiver();
        if (getMonotonicSysclockTime() - begin >= CalmNs)
            m_gate.forgetSetbacks();
        stopReceiver();
        reportEnd(ending);
        handleEnding(ending);
    }
    m_question.reset();
    m_started = false;
    m_queue.end();
    m_record.onStop();
}

/// Asks the process that holds the name, for as long as it is not fit to be joined.
///
/// @return whether it can be joined, or there is none and the receiver can wait for one
bool Consumer::Impl::approachSender()
{
    while (!m_stopRequested)
    {
        const TimeValue begin = getMonotonicSysclockTime();
        const SenderProbe answer = askSender();
        if (m_stopRequested) // cppcheck-suppress oppositeInnerCondition  // set by another thread
            break;
        const Gatekeeper::Step step =
            m_gate.judgeAnswer(answer, getMonotonicSysclockTime() - begin);
        take(step);
        if (step.joins)
            return !m_stopRequested;
    }
    return false;
}

/// Waits for an answer without limit: one question that stands takes one place in the backlog of a
/// sender that is stopped, and asking again would take another.
SenderProbe Consumer::Impl::askSender()
{
    if (!m_question)
        m_question.emplace(m_options.name);
    while (!m_stopRequested && !m_question->isOver() && !m_question->hasInitialInfo())
    {
        m_wakeup.wait(NoTimeout, m_question->getFD());
        m_question->advance();
    }
    const int timeoutMs = m_gate.getAnnouncementTimeoutMs();
    const TimeValue end = getEnd(timeoutMs);
    while (!m_stopRequested && !m_question->isOver() && getMonotonicSysclockTime() < end)
    {
        m_wakeup.wait(timeoutMs, m_question->getFD());
        m_question->advance();
    }
    SenderProbe answer = m_question->getAnswer();
    m_question.reset();
    return answer;
}

bool Consumer::Impl::startReceiver()
{
    m_endedByKeeper = false;
    m_missedSequence = false;
    m_rejoinRequested = false;
    m_isDoubtful = false;
    m_workerEnded = false;
    m_givenUp = false;
    m_standingConnection.clear();
    m_numChanges = 0;
    std::string problem = "the library's log says why";
    try
    {
        const RealTimeScope realTime(m_options.realTime);
        if (m_receiver.initializeReceiver(m_options.name))
            return true;
    }
    catch (const std::system_error& error)
    {
        problem = error.what();
    }
    stopReceiver();
    take(m_gate.onFailedStart(problem));
    return false;
}

Consumer::Impl::Ending Consumer::Impl::superviseReceiver()
{
    RetryPause look(FirstWatchIntervalMs, WatchIntervalMs);
    while (!m_stopRequested)
    {
        const bool isConnecting = m_record.getConnectingSince() != 0;
        if (!isConnecting)
            look.reset();
        m_wakeup.wait(isConnecting ? look.getNext() : WatchIntervalMs);
        if (m_stopRequested) // cppcheck-suppress oppositeInnerCondition  // set by another thread
            break;
        if (m_record.hasFrame())
            m_gate.forgetObstacles();
        if (m_workerEnded)
            return Ending::WorkerEnded;
        if (m_missedSequence)
            return Ending::MissedSequence;
        if (m_rejoinRequested.exchange(false) && m_record.isJoined())
            return Ending::Request;
        if (m_record.isFlapping())
            return Ending::Flapping;
        if (m_record.isStalled(getMonotonicSysclockTime()))
            return Ending::Stall;
        if (m_isDoubtful || isSuspicious())
            return Ending::Doubt;
    }
    return Ending::Stop;
}

void Consumer::Impl::stopReceiver()
{
    m_endedByKeeper = true;
    m_record.release();
    stopPromptly(m_receiver, m_directory);
}

void Consumer::Impl::reportEnd(Ending ending)
{
    if (!m_endIsUnreported.exchange(false))
        return;
    const std::string name = quote(m_options.name);
    if (ending == Ending::Request)
        return tell(Kind::Stalled, "joining " + name + " again, as requested");
    if (ending != Ending::Stall && ending != Ending::MissedSequence)
        return tell(Kind::Lost, "left " + name);
    m_record.onStall();
    const bool isMissed = ending == Ending::MissedSequence;
    tell(
        Kind::Stalled, (isMissed ? "missed a format announcement of " : "no frames come from ") +
                           name + ": joining it again");
}

void Consumer::Impl::handleEnding(Ending ending)
{
    using Setback = Gatekeeper::Setback;
    if (m_refusal)
        m_gate.onRefusal(*std::exchange(m_refusal, std::nullopt));
    switch (ending)
    {
    case Ending::Stop:
    case Ending::MissedSequence:
    case Ending::Request:
    case Ending::Stall:
        break;
    case Ending::Doubt:
        take(m_gate.onSetback(Setback::Doubt));
        break;
    case Ending::Flapping:
        m_record.forgetLosses();
        take(m_gate.onSetback(Setback::Flapping));
        break;
    case Ending::WorkerEnded:
        take(m_gate.onSetback(m_givenUp ? Setback::NoChannel : Setback::WorkerEnded));
        break;
    }
}

/// @return whether the receiver should be stopped for a closer look at its peer
bool Consumer::Impl::isSuspicious()
{
    const TimeValue now = getMonotonicSysclockTime();
    const TimeValue connecting = m_record.getConnectingSince();
    const ConnectingLimits& limits = m_gate.isWary() ? WaryLimits : NormalLimits;
    // While a sender is there that has only just come, the receiver is about to join it.
    if (connecting != 0)
        return m_question ? now - m_askedAt >= limits.durationNs
                          : isUnanswered(limits, now - connecting >= limits.durationNs);
    m_question.reset();
    m_numChanges = 0;
    return false;
}

/// For a receiver that is connecting.
bool Consumer::Impl::isUnanswered(const ConnectingLimits& limits, bool isLate)
{
    // A receiver that has connected and waits for the first message is left to wait, also after
    // its sender was replaced: asking takes a place in a backlog.
    // A look may fall between two connections, also while a sender is replaced: what counts is a
    // connection that follows another one.
    const std::string connection = findConnection(m_options.name);
    if (!connection.empty() && std::exchange(m_standingConnection, connection) != connection)
        ++m_numChanges;
    else if (!connection.empty())
        m_numChanges = 0;
    const bool isChurning = m_numChanges >= limits.numChanges;
    if (!isChurning && (!connection.empty() || !isLate))
        return false;
    m_question.emplace(m_options.name);
    m_askedAt = getMonotonicSysclockTime();
    if (m_question->getAnswer().reached)
        return isChurning;
    m_question.reset();
    return false;
}

void Consumer::Impl::rest(int durationMs)
{
    const TimeValue end = getEnd(durationMs);
    for (TimeValue now = 0; !m_stopRequested && (now = getMonotonicSysclockTime()) < end;)
        m_wakeup.wait(static_cast<int>((end - now) / NsPerMs) + 1);
}

void Consumer::Impl::take(const Gatekeeper::Step& step)
{
    if (step.news)
        tell(step.news->kind, step.news->text, step.news->fourcc);
    rest(step.pauseMs);
}

void Consumer::Impl::tell(Kind kind, std::string text, std::uint32_t fourcc)
{
    ConsumerEvent event{kind, getMonotonicSysclockTime(), std::move(text), fourcc};
    if (m_callbacks.onEvent)
    {
        const CallbackScope scope(m_callbackThread);
        m_callbacks.onEvent(event);
    }
    if (usesQueue())
        m_queue.put(std::move(event));
}

Consumer::Consumer(ConsumerOptions options, ConsumerCallbacks callbacks)
    : m_impl(std::make_unique<Impl>(std::move(options), std::move(callbacks)))
{
}

Consumer::~Consumer()
{
    if (!m_impl || !m_impl->isForkedCopy())
        return;
    // What its threads, which do not exist here, were changing is left alone.
    m_impl->stop();
    static_cast<void>(m_impl.release());
}

Consumer::Consumer(Consumer&& other) noexcept = default;

Consumer& Consumer::operator=(Consumer&& other) noexcept
{
    Consumer former(std::move(*this));
    m_impl = std::move(other.m_impl);
    return *this;
}

void Consumer::addDepayloader(Depayloader& depayloader)
{
    m_impl->addCodec(std::make_unique<DepayloaderRelay>(depayloader));
}

Status Consumer::start()
{
    return m_impl->start();
}

void Consumer::stop()
{
    m_impl->stop();
}

void Consumer::requestStop()
{
    m_impl->requestStop();
}

void Consumer::rejoin()
{
    m_impl->rejoin();
}

void Consumer::interrupt(bool on)
{
    m_impl->getQueue().interrupt(on);
}

void Consumer::pause(bool on)
{
    m_impl->pause(on);
}

std::optional<ConsumerItem> Consumer::read(std::chrono::nanoseconds timeout)
{
    return m_impl->getQueue().read(timeout);
}

int Consumer::getDescriptor()
{
    return m_impl->usesQueue() ? m_impl->getQueue().getDescriptor() : -1;
}

void Consumer::setQueueLimits(const QueueLimits& limits)
{
    m_impl->getQueue().setLimits(limits);
}

bool Consumer::waitUntilJoined(std::chrono::nanoseconds timeout) const
{
    return m_impl->getRecord().waitUntilJoined(timeout);
}

ConsumerClock Consumer::getClock() const
{
    return m_impl->getClock();
}

TimeValue Consumer::getStreamTime() const
{
    return m_impl->getStreamTime();
}

ConsumerStatistics Consumer::getStatistics() const
{
    return m_impl->getStatistics();
}

AgeHistogram Consumer::getAges() const
{
    return m_impl->getRecord().getAges();
}

} // namespace vlx::kit
