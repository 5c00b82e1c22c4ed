#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include <sys/types.h>

#include <vlx/SideChannel.hpp>
#include <vlxkit/Consumer.hpp>
#include <vlxkit/Discovery.hpp>

#include "ChannelCheck.hpp"
#include "RetryPause.hpp"

namespace vlx::kit
{

/// Decides whether a consumer joins the process that holds its stream's name: finds obstacles,
/// decides which are reported, and how long to wait before the next attempt. Makes no connection
/// and never waits: its caller does both.
///
/// @thread one at a time, except judgeGreeting()
class Gatekeeper
{
public:
    /// Reason why the consumer cannot join.
    struct Obstacle
    {
        ConsumerEvent::Kind kind = ConsumerEvent::Kind::Failed;
        std::string text;
        std::uint32_t fourcc = 0;
    };

    /// Next actions, in this order.
    struct Step
    {
        std::optional<Obstacle> news = {}; ///< event to report; not set: nothing new
        int pauseMs = 0;                   ///< to wait
        bool joins = false; ///< then join, or wait for a sender; otherwise ask (again)
    };

    /// Why a receiver was stopped.
    enum class Setback
    {
        Doubt,    ///< the sender must be probed before it is joined again
        Flapping, ///< all its connections ended before a sequence was announced
        NoChannel,
        WorkerEnded,
    };

    /// Why the announced codec cannot be played here, as the end of a sentence; empty if it can.
    using CodecTest = std::function<std::string(const SenderProbe& answer)>;

    /// @param senderUser  that the sender must run as; not set: any
    /// @param pubSubOnly  whether a sender in Pipeline is refused
    Gatekeeper(
        const std::string& name,
        std::optional<uid_t> senderUser,
        CodecTest findCodecProblem,
        bool pubSubOnly = false);

    /// Resets everything for a new start.
    ///
    /// @param asksFirst  whether a sender must be asked even before it is joined for the first time
    void reset(bool asksFirst = false);

    /// The stream plays: the next obstacle is reported again.
    void forgetObstacles();

    /// The last setback was long ago.
    void forgetSetbacks();

    /// Checks a sender's first message.
    ///
    /// @param info     not set: malformed, or missing
    /// @param user     that the sender runs as
    /// @param channel  that the sender announces
    /// @thread any
    std::optional<Obstacle> judgeGreeting(
        const std::optional<InitialInfo>& info,
        uid_t user,
        const ChannelCheck& channel) const;

    /// Judges a sender's answer to a probe.
    ///
    /// @param durationNs  time that the answer took
    Step judgeAnswer(const SenderProbe& answer, TimeValue durationNs);

    /// Remembers why the receiver refused a connection.
    void onRefusal(Obstacle obstacle);

    /// The receiver was stopped. The sender must be asked next, after a pause that grows from one
    /// setback to the next: however good its answers are, only a frame proves a sender.
    Step onSetback(Setback setback);

    /// The receiver could not be started.
    Step onFailedStart(const std::string& problem);

    /// @return milliseconds to wait for the announcement of a sequence once a sender has answered
    int getAnnouncementTimeoutMs() const;

    /// @return whether the sender must be asked before it is joined
    bool mustAsk() const
    {
        return m_mustAsk;
    }

    /// @return whether a sender was doubted, and has not brought a frame since
    bool isWary() const
    {
        return m_numDoubts != 0;
    }

private:
    Step judgeGone();
    void forgetReports();
    Obstacle makeFlapping() const;
    std::optional<Obstacle> findObstacle(const SenderProbe& answer) const;
    std::optional<Obstacle> toNews(const Obstacle& obstacle);

    const std::string m_name; // in quotes
    const std::optional<uid_t> m_senderUser;
    const CodecTest m_findCodecProblem;
    const bool m_pubSubOnly;

    bool m_mustAsk = false;
    bool m_isPatient = false; // with a peer that has not announced a sequence
    int m_failedChecks = 0;   // of one sender
    int m_numSetbacks = 0;
    int m_numDoubts = 0;
    std::string m_told; // last obstacle, which may be found again and again
    std::optional<Obstacle> m_refusal;
    std::optional<Obstacle> m_setback; // told unless an answer shows the reason for it
    RetryPause m_failurePause;
    RetryPause m_restartPause;
};

} // namespace vlx::kit
