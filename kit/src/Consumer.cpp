#include <atomic>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

#include <AbstractName.hpp>
#include <SenderDirectory.hpp>
#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>
#include <pthread.h>
#include <vlxkit/BaseDirectory.hpp>
#include <vlxkit/Consumer.hpp>
#include <vlxkit/Discovery.hpp>

#include <miscUtils/MiscUtils.hpp>

#include "ConsumerRecord.hpp"
#include "PromptStop.hpp"
#include "ScopedTmpdir.hpp"
#include "WakeupEvent.hpp"

namespace vlx::kit
{

namespace
{

using Kind = ConsumerEvent::Kind;
using ClockType = Receiver::StreamClockType;
using miscUtils::getMonotonicSysclockTime;

constexpr int WatchIntervalMs = 100;
// How long somebody is left alone who cannot be received from.
constexpr int PauseMs = 2000;
// A sender that listens is normally joined within milliseconds.
constexpr TimeValue SuspiciousConnectingNs = 1'000'000'000;
constexpr auto AnswerTimeout = std::chrono::milliseconds(300);

log4cplus::Logger logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("Vellox.Kit"));

std::string quote(const std::string& text)
{
    return '"' + text + '"';
}

std::string toPauseText()
{
    return "; asking again every " + std::to_string(PauseMs / 1000) + " s";
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
        Flapping,
        Unanswered, // connecting for long, though somebody listens
        GivenUp,
    };

    // Of the worker.
    void handleState(Receiver::State state);
    void handleSequence(Depayloader& depayloader);
    void handleFrame(TimeValue timestamp, TimeValue duration, const Buffer& data);

    // Of the keeper.
    void keep();
    bool approachSender();
    bool startReceiver();
    Ending superviseReceiver();
    void stopReceiver();
    void handleEnding(Ending ending);
    bool isUnanswered() const;
    void pause(int durationMs);
    void tellOnce(Kind kind, const std::string& text, std::uint32_t fourcc = 0);

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
    std::string m_directory; // that the receiver watches
    bool m_hasFlapped = false;
    std::string m_told; // text of the last event that would come again and again

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
    m_receiver.addDepayloader(m_pcm);
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
}

bool Consumer::Impl::start()
{
    if (m_keeper.joinable())
        return true;
    if (!prepare())
        return false;
    m_stopRequested = false;
    m_hasFlapped = false;
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
        restrict(base.problem + "; senders that start are found late");
    else if (!base.writable)
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
}

/// Looks at whoever holds the name, if that is needed.
///
/// @return whether he can be joined, or nobody is there; otherwise it was told, and waited for
bool Consumer::Impl::approachSender()
{
    if (!std::exchange(m_hasFlapped, false))
        return true;
    const SenderProbe answer = probeSender(m_options.name, AnswerTimeout);
    if (!answer.reached)
        return true;
    if (answer.fourcc && !answer.format)
    {
        tellOnce(
            Kind::CannotPlay,
            "cannot play codec \"" + toFourccText(*answer.fourcc) + "\" of " +
                quote(m_options.name) + toPauseText(),
            *answer.fourcc);
    }
    else
    {
        tellOnce(
            Kind::Stranger, quote(m_options.name) +
                                " ends every connection before it announces a stream" +
                                toPauseText());
    }
    pause(PauseMs);
    return false;
}

bool Consumer::Impl::startReceiver()
{
    m_endedByKeeper = false;
    m_givenUp = false;
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
    tellOnce(Kind::Failed, "cannot start to receive: " + problem + toPauseText());
    pause(PauseMs);
    return false;
}

Consumer::Impl::Ending Consumer::Impl::superviseReceiver()
{
    while (!m_stopRequested)
    {
        m_wakeup.wait(WatchIntervalMs);
        if (m_stopRequested)
            break;
        if (m_givenUp)
            return Ending::GivenUp;
        if (m_record.isFlapping())
            return Ending::Flapping;
        if (isUnanswered())
            return Ending::Unanswered;
        if (m_record.isStalled(getMonotonicSysclockTime()))
            return Ending::Stall;
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
    switch (ending)
    {
    case Ending::Stop:
        break;
    case Ending::Stall:
        m_record.onStall();
        tell(
            Kind::Stalled,
            "joined " + quote(m_options.name) + ", but no frames come: joining again");
        break;
    case Ending::Flapping:
    case Ending::Unanswered:
        m_record.forgetLosses();
        m_hasFlapped = true;
        break;
    case Ending::GivenUp:
        tellOnce(
            Kind::Failed, "cannot join " + quote(m_options.name) +
                              ": the system refused a channel; the library's log says why" +
                              toPauseText());
        pause(PauseMs);
        break;
    }
}

bool Consumer::Impl::isUnanswered() const
{
    const TimeValue since = m_record.getConnectingSince();
    if (since == 0 || getMonotonicSysclockTime() - since < SuspiciousConnectingNs)
        return false;
    const SenderProbe answer = probeSender(m_options.name, AnswerTimeout);
    return answer.closedEarly && !answer.initialInfo;
}

void Consumer::Impl::pause(int durationMs)
{
    const TimeValue end =
        getMonotonicSysclockTime() + static_cast<TimeValue>(durationMs) * 1'000'000;
    for (TimeValue now = 0; !m_stopRequested && (now = getMonotonicSysclockTime()) < end;)
        m_wakeup.wait(static_cast<int>((end - now) / 1'000'000) + 1);
}

void Consumer::Impl::tellOnce(Kind kind, const std::string& text, std::uint32_t fourcc)
{
    if (std::exchange(m_told, text) != text)
        tell(kind, text, fourcc);
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
