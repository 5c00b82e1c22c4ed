#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <string>

#include <FlapWatch.hpp>
#include <StallWatch.hpp>

#include <vlx/VlxPayload.hpp>
#include <vlx/VlxReceiver.hpp>

#include "StreamEvents.hpp"

namespace vlx::tool
{

/// A receiver that puts what it is told into a queue, and the watches over it.
///
/// @thread one at a time, for everything that says nothing else
class ReceiverSession
{
public:
    /// @param events          filled from the receiver's worker thread
    /// @param stallLimitNs    see kit::StallWatch
    /// @param onStateChange   called on the worker thread when flapping or given up may have changed
    ReceiverSession(
        std::string name,
        StreamEventQueue& events,
        TimeValue stallLimitNs,
        std::function<void()> onStateChange);

    /// Stops the receiver.
    ~ReceiverSession();

    ReceiverSession(const ReceiverSession&) = delete;
    ReceiverSession& operator=(const ReceiverSession&) = delete;

    /// @throws CommandFailure if the system refuses
    void start();

    /// Stops the receiver, promptly. It can be started again.
    ///
    /// @param reason  told to the queue if a connection ends by it
    void stop(EndReason reason);

    /// Stops and starts a receiver that is joined but gets no frames.
    void restartAfterStall();

    bool isStalled() const;

    /// @return stalls so far
    std::uint64_t getNumStalls() const;

    /// @return whether connections are lost over and over before a sequence is announced
    bool isFlapping() const;

    /// @return whether the receiver has given up, since the system refused a socket
    bool hasGivenUp() const;

    /// @return since when the receiver looks for a sender, nanoseconds of CLOCK_MONOTONIC; 0 if it
    ///         does not
    TimeValue getConnectingSince() const;

private:
    void handleState(Receiver::State state);
    void handleSequence(Depayloader& depayloader);
    void handleFrame(TimeValue timestamp, const Buffer& data);

    const std::string m_name;
    StreamEventQueue& m_events;
    const std::function<void()> m_onStateChange;
    kit::StallWatch m_stallWatch;
    mutable std::mutex m_flapMutex;
    kit::FlapWatch m_flapWatch; // guarded by m_flapMutex
    std::atomic<EndReason> m_endReason = EndReason::Lost;
    std::atomic<bool> m_givenUp = false;
    std::atomic<TimeValue> m_connectingSince = 0;
    bool m_joined = false; // worker thread, or the caller of start() before there is one
    PcmDepayloader m_depayloader;
    Receiver m_receiver; // last: its threads use all of the above
};

} // namespace vlx::tool
