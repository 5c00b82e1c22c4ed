#include "ReceiverSession.hpp"

#include <utility>

#include <vlxkit/PromptStop.hpp>

#include <miscUtils/MiscUtils.hpp>

#include "common/ExitCodes.hpp"
#include "common/LogSetup.hpp"

namespace vlx::tool
{

namespace
{

using miscUtils::getMonotonicSysclockTime;

StreamEvent makeEvent(StreamEvent::Kind kind)
{
    StreamEvent event;
    event.kind = kind;
    event.time = getMonotonicSysclockTime();
    return event;
}

} // unnamed namespace

ReceiverSession::ReceiverSession(
    std::string name,
    StreamEventQueue& events,
    TimeValue stallLimitNs,
    std::function<void()> onStateChange)
    : m_name(std::move(name)),
      m_events(events),
      m_onStateChange(std::move(onStateChange)),
      m_stallWatch(stallLimitNs)
{
    m_receiver.addDepayloader(m_depayloader);
    m_receiver.setStateChangedCallback([this](Receiver::State state) { handleState(state); });
    m_receiver.setNewSequenceCallback([this](Depayloader& depayloader)
                                      { handleSequence(depayloader); });
    m_receiver.setMediaDataCallback([this](TimeValue timestamp, TimeValue, const Buffer& data)
                                    { handleFrame(timestamp, data); });
    m_receiver.setConnectionAttemptFailedCallback(
        [this]
        {
            m_givenUp = true;
            m_onStateChange();
        });
}

ReceiverSession::~ReceiverSession()
{
    stop(EndReason::Stop);
}

void ReceiverSession::start()
{
    m_endReason = EndReason::Lost;
    if (!m_receiver.initializeReceiver(m_name))
        throw CommandFailure(ExitCode::Failed, "cannot start to receive" + quoteLastLibraryError());
}

void ReceiverSession::stop(EndReason reason)
{
    m_endReason = reason;
    kit::stopPromptly(m_receiver);
    m_connectingSince = 0;
    const std::lock_guard<std::mutex> lock(m_flapMutex);
    m_flapWatch.onSequence();
}

void ReceiverSession::restartAfterStall()
{
    m_stallWatch.onRestart();
    stop(EndReason::Stall);
    start();
}

bool ReceiverSession::isStalled() const
{
    return m_stallWatch.isStalled(getMonotonicSysclockTime());
}

std::uint64_t ReceiverSession::getNumStalls() const
{
    return m_stallWatch.getNumRestarts();
}

bool ReceiverSession::isFlapping() const
{
    const std::lock_guard<std::mutex> lock(m_flapMutex);
    return m_flapWatch.isFlapping();
}

bool ReceiverSession::hasGivenUp() const
{
    return m_givenUp;
}

TimeValue ReceiverSession::getConnectingSince() const
{
    return m_connectingSince;
}

void ReceiverSession::handleState(Receiver::State state)
{
    const TimeValue now = getMonotonicSysclockTime();
    m_connectingSince = state == Receiver::State::Connecting ? now : 0;
    if (state == Receiver::State::Running)
    {
        m_joined = true;
        m_stallWatch.onRunning(now);
        m_events.push(makeEvent(StreamEvent::Kind::Joined));
        return;
    }

    m_stallWatch.onNotRunning();
    if (!std::exchange(m_joined, false))
        return;
    StreamEvent event = makeEvent(StreamEvent::Kind::Ended);
    event.reason = m_endReason;
    m_events.push(std::move(event));
    {
        const std::lock_guard<std::mutex> lock(m_flapMutex);
        m_flapWatch.onLoss(now);
    }
    m_onStateChange();
}

void ReceiverSession::handleSequence(Depayloader& /*depayloader*/)
{
    {
        const std::lock_guard<std::mutex> lock(m_flapMutex);
        m_flapWatch.onSequence();
    }
    StreamEvent event = makeEvent(StreamEvent::Kind::Sequence);
    event.format = {
        m_depayloader.getSampleFormat(), m_depayloader.getSampleRate(),
        m_depayloader.getNumChannels()};
    event.clock = m_receiver.getStreamClockType();
    m_events.push(std::move(event));
}

void ReceiverSession::handleFrame(TimeValue timestamp, const Buffer& data)
{
    StreamEvent event = makeEvent(StreamEvent::Kind::Frame);
    event.timestamp = timestamp;
    m_stallWatch.onFrame(event.time);
    m_events.pushFrame(std::move(event), data);
}

} // namespace vlx::tool
