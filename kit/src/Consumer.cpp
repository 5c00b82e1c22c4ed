#include <atomic>
#include <cstdio>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

#include <AbstractName.hpp>
#include <Descriptors.hpp>
#include <SenderDirectory.hpp>
#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>
#include <pthread.h>

#include <miscUtils/MiscUtils.hpp>
#include <vlxkit/BaseDirectory.hpp>
#include <vlxkit/Consumer.hpp>
#include <vlxkit/Discovery.hpp>
#include <vlxkit/Text.hpp>

#include "ConsumerRecord.hpp"
#include "PromptStop.hpp"
#include "ScopedTmpdir.hpp"
#include "SenderQuestion.hpp"
#include "WakeupEvent.hpp"

namespace vlx::kit
{

namespace
{

using Kind = ConsumerEvent::Kind;
using ClockType = Receiver::StreamClockType;
using miscUtils::getMonotonicSysclockTime;

constexpr TimeValue NsPerMs = 1'000'000;

constexpr int WatchIntervalMs = 100;
// How long somebody is left alone who cannot be received from.
constexpr int PauseMs = 2000;
// A sender that listens is normally joined within milliseconds, and its frames follow.
constexpr TimeValue SuspiciousConnectingNs = 300 * NsPerMs;
constexpr TimeValue SuspiciousSilenceNs = 500 * NsPerMs;
// A sender that was stopped and is killed closes as a stranger does, but not as quickly.
constexpr TimeValue QuickCloseNs = 1000 * NsPerMs;
// A sender that starts or goes may look odd for a moment: nobody is accused before so many looks,
// between which the time doubles.
constexpr int NeededLooks = 5;
constexpr int FirstLookPauseMs = 20;
// Asking one whose backlog is full costs him nothing.
constexpr int BusyPauseMs = 100;
// For the announcement of a sequence. It follows at once if there is one, but one who has ended
// every connection before is listened to for longer.
constexpr int SequenceTimeoutMs = 5;
constexpr int PatientSequenceTimeoutMs = 300;

log4cplus::Logger logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("Vellox.Kit"));

TimeValue getEnd(int durationMs)
{
    return getMonotonicSysclockTime() + static_cast<TimeValue>(durationMs) * NsPerMs;
}

std::string toModeText(mode_t mode)
{
    char text[32] = "";
    if (mode != 0)
        std::snprintf(text, sizeof(text), " (mode %04o)", static_cast<unsigned>(mode));
    return text;
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
    case Kind::Stranger:
        return "stranger";
    case Kind::Failed:
        return "failed";
    }
    return "unknown";
}

/// The receiver's callbacks run on its worker. Everything else is done by the keeper, which tells
/// events only while the receiver is shut down: so no two callbacks overlap.
class Consumer::Impl
{
public:
    Impl(ConsumerOptions options, ConsumerCallbacks callbacks);
    ~Impl();

    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    void addDepayloader(Depayloader& depayloader);
    bool start();
    void stop();
    TimeValue getStreamTime() const;
    ConsumerStatistics getStatistics() const;

    const std::string& getProblem() const
    {
        return m_problem;
    }

private:
    /// What ends the keeper's watch over the receiver.
    enum class Ending
    {
        Stop,
        Stall,
        Suspicion, // for a closer look
        Flapping,
        GivenUp,
    };

    /// What keeps the consumer from joining.
    struct Obstacle
    {
        Kind kind = Kind::Failed;
        std::string text;
        std::uint32_t fourcc = 0;
    };

    // Of the worker.
    void handleState(Receiver::State state);
    void handleSequence(Depayloader& depayloader);
    void handleFrame(TimeValue timestamp, TimeValue duration, const Buffer& data);

    // Of the keeper.
    void keep();
    bool approachSender();
    SenderProbe askSender();
    std::optional<Obstacle> findObstacle(const SenderProbe& answer);
    bool startReceiver();
    Ending superviseReceiver();
    bool isSuspicious();
    bool isUnanswered();
    bool isUnpermitted(TimeValue join);
    void stopReceiver();
    void handleEnding(Ending ending);
    void pause(int durationMs);
    void tellOnce(const Obstacle& obstacle);

    // Of any.
    void tell(Kind kind, std::string text, std::uint32_t fourcc = 0) const;
    bool fail(const std::string& problem);
    void restrict(const std::string& restriction);
    bool prepare();

    // Constant.
    const ConsumerOptions m_options;
    const ConsumerCallbacks m_callbacks;

    // Of the thread that starts and stops.
    std::string m_problem;
    std::thread m_keeper;

    // Of the keeper, while it runs.
    std::string m_directory;                  // that the receiver watches
    std::optional<SenderQuestion> m_question; // kept while it is not answered
    std::optional<Obstacle> m_setback;        // told unless a closer look finds the reason for it
    bool m_isPatient = false;                 // with one who has not announced a sequence
    std::string m_standingConnection;         // of the receiver, at the last look
    TimeValue m_permittedJoin = 0;            // time of the connection that was looked at
    std::string m_told;                       // last obstacle, which may be found again and again
    DepayloaderList m_codecs;                 // for trying headers while the receiver is shut down

    // Of any thread.
    const WakeupEvent m_wakeup;
    std::atomic<bool> m_started = false;
    std::atomic<bool> m_stopRequested = false;
    std::atomic<bool> m_givenUp = false;
    std::atomic<bool> m_endedByKeeper = false; // whatever ends the connection now
    ConsumerRecord m_record;

    // Of the worker.
    ClockType m_clock = ClockType::Undetermined;
    PcmDepayloader m_pcm;

    Receiver m_receiver; // last: its threads use all of the above
};

Consumer::Impl::Impl(ConsumerOptions options, ConsumerCallbacks callbacks)
    : m_options(std::move(options)),
      m_callbacks(std::move(callbacks)),
      m_record(static_cast<TimeValue>(m_options.stallTimeout.count()))
{
    addDepayloader(m_pcm);
    m_receiver.setStateChangedCallback([this](Receiver::State state) { handleState(state); });
    m_receiver.setNewSequenceCallback([this](Depayloader& depayloader)
                                      { handleSequence(depayloader); });
    m_receiver.setMediaDataCallback(
        [this](TimeValue timestamp, TimeValue duration, const Buffer& data)
        { handleFrame(timestamp, duration, data); });
    m_receiver.setConnectionAttemptFailedCallback(
        [this]
        {
            m_givenUp = true;
            m_wakeup.wake();
        });
}

Consumer::Impl::~Impl()
{
    stop();
}

void Consumer::Impl::addDepayloader(Depayloader& depayloader)
{
    m_receiver.addDepayloader(depayloader);
    m_codecs.addDepayloader(depayloader);
}

bool Consumer::Impl::start()
{
    if (m_keeper.joinable())
        return true;
    if (!prepare())
        return false;
    m_stopRequested = false;
    m_setback.reset();
    m_told.clear();
    m_record.onStart(getMonotonicSysclockTime());
    try
    {
        m_keeper = std::thread([this] { keep(); });
    }
    catch (const std::system_error& error)
    {
        return fail(std::string("cannot start a thread: ") + error.what());
    }
    m_started = true;
    return true;
}

bool Consumer::Impl::prepare()
{
    m_problem.clear();
    if (m_options.name.empty() || m_options.name.size() > MaxSocketNameLength)
        return fail(
            "the name of a stream has 1 to " + std::to_string(MaxSocketNameLength) + " bytes");
    if (!m_callbacks.onFrame)
        return fail("a consumer needs a callback for its frames");
    if (!m_wakeup.isOpen())
        return fail("no descriptor is left");

    const RealTimeScope realTime(m_options.realTime);
    if (!realTime.getProblem().empty())
    {
        if (m_options.realTime.use == RealTimeUse::Require)
            return fail(realTime.getProblem());
        restrict(realTime.getProblem());
    }

    const ScopedTmpdir tmpdir(m_options.baseDirectory);
    m_directory = getBaseDirectory();
    const BaseDirectory base = prepareBaseDirectory(BaseDirectoryUse::Receive);
    if (!base.problem.empty())
        return fail(base.problem);
    if (!base.writable)
        restrict(quote(base.path) + " is not writable; stopping can take up to 5 seconds");
    return true;
}

bool Consumer::Impl::fail(const std::string& problem)
{
    m_problem = problem;
    return false;
}

void Consumer::Impl::restrict(const std::string& restriction)
{
    LOG4CPLUS_WARN(logger, "Consumer of " << quote(m_options.name) << ": " << restriction);
    m_problem += (m_problem.empty() ? "" : "; ") + restriction;
}

void Consumer::Impl::stop()
{
    if (!m_keeper.joinable())
        return;
    m_stopRequested = true;
    m_wakeup.wake();
    m_keeper.join();
    m_started = false;
}

TimeValue Consumer::Impl::getStreamTime() const
{
    return m_receiver.getCurrentStreamTime();
}

ConsumerStatistics Consumer::Impl::getStatistics() const
{
    ConsumerStatistics statistics = m_record.getStatistics();
    statistics.state = m_receiver.getState();
    if (statistics.state == Receiver::State::Idle && m_started)
        statistics.state = Receiver::State::Connecting;
    if (statistics.clock == ClockType::MonotonicSystemClock)
        statistics.clockSynchronized = true;
    if (statistics.clock == ClockType::SyncedNetClock)
    {
        const TimeValue streamTime = m_receiver.getCurrentStreamTime();
        statistics.clockSynchronized = streamTime != 0;
        if (statistics.clockSynchronized)
            statistics.clockOffsetNs =
                static_cast<std::int64_t>(streamTime - getMonotonicSysclockTime());
    }
    return statistics;
}

void Consumer::Impl::handleState(Receiver::State state)
{
    const TimeValue now = getMonotonicSysclockTime();
    if (state == Receiver::State::Running)
    {
        m_record.onJoined(now);
        tell(Kind::Joined, "joined " + quote(m_options.name));
        return;
    }
    const bool byPeer = !m_endedByKeeper;
    const bool wasJoined = m_record.onEnded(now, byPeer);
    if (state == Receiver::State::Connecting)
        m_record.onConnecting(now);
    if (!wasJoined || !byPeer)
        return;
    tell(Kind::Lost, "lost " + quote(m_options.name) + ", waiting for it to return");
    m_wakeup.wake();
}

void Consumer::Impl::handleSequence(Depayloader& depayloader)
{
    m_clock = m_receiver.getStreamClockType();
    std::optional<StreamFormat> format;
    if (&depayloader == &m_pcm)
        format = {m_pcm.getSampleFormat(), m_pcm.getSampleRate(), m_pcm.getNumChannels()};
    if (!m_record.onSequence(m_clock, format))
        return;
    if (format && m_callbacks.onFormat)
        m_callbacks.onFormat(*format);
    if (!format && m_callbacks.onCodec)
        m_callbacks.onCodec(depayloader);
}

void Consumer::Impl::handleFrame(TimeValue timestamp, TimeValue duration, const Buffer& data)
{
    const TimeValue arrival = getMonotonicSysclockTime();
    TimeValue streamTime = 0;
    if (m_clock == ClockType::MonotonicSystemClock)
        streamTime = arrival;
    else if (m_clock == ClockType::SyncedNetClock)
        streamTime = m_receiver.getCurrentStreamTime();
    const auto [gapNs, isFirst] =
        m_record.onFrame(timestamp, duration, data.size(), arrival, streamTime);
    m_callbacks.onFrame({timestamp, duration, data, gapNs, isFirst, arrival});
}

void Consumer::Impl::keep()
{
    ::pthread_setname_np(::pthread_self(), "vlx-keeper");
    while (!m_stopRequested)
    {
        if (!approachSender() || !startReceiver())
            continue;
        const Ending ending = superviseReceiver();
        stopReceiver();
        handleEnding(ending);
    }
    m_question.reset();
}

/// Looks at whoever holds the name, for as long as he is not fit to be joined.
///
/// @return whether he can be joined, or nobody is there and the receiver can wait for him
bool Consumer::Impl::approachSender()
{
    for (int looks = 0; !m_stopRequested;)
    {
        const TimeValue begin = getMonotonicSysclockTime();
        const SenderProbe answer = askSender();
        if (m_stopRequested)
            break;
        if (!answer.reached)
        {
            // Whoever was there may still be: without a descriptor nobody can be asked.
            const std::optional<Obstacle> setback = std::exchange(m_setback, std::nullopt);
            if (setback && setback->kind == Kind::Failed)
                tellOnce(*setback);
            else
                m_told.clear();
            return true;
        }
        const bool hasHung = !answer.initialInfo && answer.closedEarly &&
                             getMonotonicSysclockTime() - begin >= QuickCloseNs;
        if (answer.busy || hasHung)
        {
            pause(BusyPauseMs);
            continue;
        }

        std::optional<Obstacle> obstacle = findObstacle(answer);
        if (obstacle && ++looks < NeededLooks)
        {
            pause(FirstLookPauseMs << (looks - 1));
            continue;
        }
        if (!obstacle)
            obstacle = std::exchange(m_setback, std::nullopt);
        if (!obstacle)
            return true;
        m_setback.reset();
        tellOnce(*obstacle);
        pause(PauseMs);
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
    const int timeoutMs = m_isPatient ? PatientSequenceTimeoutMs : SequenceTimeoutMs;
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

std::optional<Consumer::Impl::Obstacle> Consumer::Impl::findObstacle(const SenderProbe& answer)
{
    const std::string name = quote(m_options.name);
    if (!answer.initialInfo && !answer.closedEarly)
        return Obstacle{Kind::Stranger, name + " is no sender: it says what none would say"};
    if (!answer.initialInfo || (m_isPatient && answer.closedEarly && !answer.sequenceNr))
        return Obstacle{
            Kind::Stranger, name + " ends every connection before it announces a stream"};

    const InitialInfo& info = *answer.initialInfo;
    const bool isPipeline = info.nanomsgProtocol == NanomsgProtocol::Pipeline;
    if (answer.socketFile.empty())
        return Obstacle{
            Kind::Stranger,
            name + " is no sender: its main channel " + quote(info.nanomsgURI) + " is none"};
    if (!answer.mayJoin)
        return Obstacle{
            Kind::NotPermitted,
            "this user may not " + std::string(isPipeline ? "make " : "write to ") +
                quote(answer.socketFile) + toModeText(answer.socketFileMode) +
                ", the socket file of " + name + ": give its sender --socket-mode group or all"};

    if (!answer.fourcc)
        return std::nullopt;
    const bool isPlayable = m_codecs.setOutOfBandInfo(*answer.fourcc, answer.codecHeader);
    m_codecs.reset();
    if (isPlayable)
        return std::nullopt;
    return Obstacle{
        Kind::CannotPlay,
        "cannot play " + name + ": its codec " + quote(toFourccText(*answer.fourcc)) +
            " is unknown here, or its header is none",
        *answer.fourcc};
}

bool Consumer::Impl::startReceiver()
{
    m_endedByKeeper = false;
    m_givenUp = false;
    m_standingConnection.clear();
    std::string problem = "the library's log says why";
    try
    {
        const ScopedTmpdir tmpdir(m_directory);
        const RealTimeScope realTime(m_options.realTime);
        if (m_receiver.initializeReceiver(m_options.name))
            return true;
    }
    catch (const std::system_error& error)
    {
        problem = error.what();
    }
    stopReceiver();
    tellOnce({Kind::Failed, "cannot start to receive: " + problem});
    pause(PauseMs);
    return false;
}

Consumer::Impl::Ending Consumer::Impl::superviseReceiver()
{
    while (!m_stopRequested)
    {
        m_wakeup.wait(WatchIntervalMs);
        if (m_stopRequested) // cppcheck-suppress oppositeInnerCondition  // set by another thread
            break;
        if (m_record.hasFrame())
            m_told.clear();
        if (m_givenUp)
            return Ending::GivenUp;
        if (m_record.isFlapping())
            return Ending::Flapping;
        if (m_record.isStalled(getMonotonicSysclockTime()))
            return Ending::Stall;
        if (isSuspicious())
            return Ending::Suspicion;
    }
    return Ending::Stop;
}

void Consumer::Impl::stopReceiver()
{
    m_endedByKeeper = true;
    stopPromptly(m_receiver, m_directory);
}

void Consumer::Impl::handleEnding(Ending ending)
{
    m_isPatient = ending == Ending::Flapping;
    switch (ending)
    {
    case Ending::Stop:
    case Ending::Suspicion:
        break;
    case Ending::Stall:
        m_record.onStall();
        tell(Kind::Stalled, "no frames come from " + quote(m_options.name) + ": joining it again");
        break;
    case Ending::Flapping:
        m_record.forgetLosses();
        m_setback = {
            Kind::Stranger,
            quote(m_options.name) + " ends every connection before it announces a stream"};
        break;
    case Ending::GivenUp:
        m_setback = {
            Kind::Failed, "cannot join " + quote(m_options.name) +
                              ": its main channel cannot be opened; the library's log says why"};
        break;
    }
}

/// @return whether the receiver should be stopped for a closer look at whoever holds the name
bool Consumer::Impl::isSuspicious()
{
    const TimeValue now = getMonotonicSysclockTime();
    const TimeValue connecting = m_record.getConnectingSince();
    if (connecting != 0 && now - connecting >= SuspiciousConnectingNs)
        return isUnanswered();
    const TimeValue silent = m_record.getSilentSince();
    if (silent != 0 && silent != m_permittedJoin && now - silent >= SuspiciousSilenceNs)
        return isUnpermitted(silent);
    m_question.reset();
    return false;
}

/// For a receiver that has been connecting for long.
bool Consumer::Impl::isUnanswered()
{
    if (m_question) // somebody was there at the last look, too
        return true;
    // A receiver that has reached somebody and waits for his first message is left to wait.
    const std::string connection = findConnection(m_options.name);
    const std::string former = std::exchange(m_standingConnection, connection);
    if (!connection.empty() && (former.empty() || former == connection))
        return false;
    m_question.emplace(m_options.name);
    if (!m_question->getAnswer().reached)
        m_question.reset();
    return false;
}

/// For a receiver that has joined and gets no frames.
bool Consumer::Impl::isUnpermitted(TimeValue join)
{
    if (!m_question)
        m_question.emplace(m_options.name);
    m_question->advance();
    if (!m_question->isOver() && !m_question->hasInitialInfo())
        return false;
    const SenderProbe answer = m_question->getAnswer();
    m_question.reset();
    m_permittedJoin = join;
    return !answer.socketFile.empty() && !answer.mayJoin;
}

void Consumer::Impl::pause(int durationMs)
{
    const TimeValue end = getEnd(durationMs);
    for (TimeValue now = 0; !m_stopRequested && (now = getMonotonicSysclockTime()) < end;)
        m_wakeup.wait(static_cast<int>((end - now) / NsPerMs) + 1);
}

void Consumer::Impl::tellOnce(const Obstacle& obstacle)
{
    if (std::exchange(m_told, obstacle.text) != obstacle.text)
        tell(obstacle.kind, obstacle.text, obstacle.fourcc);
}

void Consumer::Impl::tell(Kind kind, std::string text, std::uint32_t fourcc) const
{
    if (m_callbacks.onEvent)
        m_callbacks.onEvent({kind, getMonotonicSysclockTime(), std::move(text), fourcc});
}

Consumer::Consumer(ConsumerOptions options, ConsumerCallbacks callbacks)
    : m_impl(std::make_unique<Impl>(std::move(options), std::move(callbacks)))
{
}

Consumer::~Consumer() = default;

void Consumer::addDepayloader(Depayloader& depayloader)
{
    m_impl->addDepayloader(depayloader);
}

bool Consumer::start()
{
    return m_impl->start();
}

void Consumer::stop()
{
    m_impl->stop();
}

TimeValue Consumer::getStreamTime() const
{
    return m_impl->getStreamTime();
}

const std::string& Consumer::getProblem() const
{
    return m_impl->getProblem();
}

ConsumerStatistics Consumer::getStatistics() const
{
    return m_impl->getStatistics();
}

} // namespace vlx::kit
