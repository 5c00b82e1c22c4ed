#include "Gatekeeper.hpp"

#include <cstdio>
#include <fstream>
#include <utility>

#include <vlxkit/Text.hpp>

namespace vlx::kit
{

namespace
{

using Kind = ConsumerEvent::Kind;

constexpr TimeValue NsPerMs = 1'000'000;

// Pauses double up to a limit. The first one is short: a sender that starts or ends may look odd
// for a moment, and a receiver that ended unexpectedly is missed.
constexpr int FirstPauseMs = 20;
// While backing off from an unplayable sender; also the limit of the short pauses.
constexpr int PauseMs = 2000;
constexpr int MaxPauseMs = 10'000;
// Asking a sender whose backlog is full costs it nothing.
constexpr int BusyPauseMs = 100;
// Only so many failed checks in a row count.
constexpr int NeededChecks = 5;
// A sender that was stopped and is killed closes as an impostor does, but not as quickly.
constexpr TimeValue QuickCloseNs = 1000 * NsPerMs;
// The announcement of a sequence follows at once if there is one, but a peer that has ended every
// connection before is listened to for longer.
constexpr int AnnouncementTimeoutMs = 5;
constexpr int PatientAnnouncementTimeoutMs = 300;

/// @return the user id that stands for every user without an id in this user namespace
uid_t findOverflowUser()
{
    uid_t user = 65534; // unless it was configured otherwise
    std::ifstream("/proc/sys/kernel/overflowuid") >> user;
    return user;
}

std::string toModeText(mode_t mode)
{
    char text[32] = "";
    if (mode != 0)
        std::snprintf(text, sizeof(text), " (mode %04o)", static_cast<unsigned>(mode));
    return text;
}

} // unnamed namespace

Gatekeeper::Gatekeeper(
    const std::string& name,
    std::optional<uid_t> senderUser,
    CodecTest findCodecProblem,
    bool pubSubOnly)
    : m_name(quote(name)),
      m_senderUser(senderUser),
      m_findCodecProblem(std::move(findCodecProblem)),
      m_pubSubOnly(pubSubOnly),
      m_failurePause(PauseMs, MaxPauseMs),
      m_restartPause(FirstPauseMs, PauseMs)
{
}

void Gatekeeper::reset(bool asksFirst)
{
    forgetObstacles();
    m_refusal.reset();
    m_setback.reset();
    m_isPatient = false;
    m_mustAsk = asksFirst;
}

void Gatekeeper::forgetObstacles()
{
    forgetReports();
    forgetSetbacks();
}

void Gatekeeper::forgetSetbacks()
{
    m_numSetbacks = 0;
    m_numDoubts = 0;
    m_restartPause.reset();
}

void Gatekeeper::forgetReports()
{
    m_told.clear();
    m_failedChecks = 0;
    m_failurePause.reset();
}

Gatekeeper::Obstacle Gatekeeper::makeFlapping() const
{
    return {Kind::NotASender, m_name + " ends every connection before it sends a frame"};
}

std::optional<Gatekeeper::Obstacle> Gatekeeper::judgeGreeting(
    const std::optional<InitialInfo>& info,
    uid_t user,
    const ChannelCheck& channel) const
{
    if (m_senderUser && (user != *m_senderUser || user == findOverflowUser()))
        return Obstacle{
            Kind::NotASender, "the sender of " + m_name + " runs as user " + std::to_string(user) +
                                  ", not as user " + std::to_string(*m_senderUser)};
    if (!info)
        return Obstacle{Kind::NotASender, m_name + " is not a Vellox sender (invalid greeting)"};
    if (!channel.problem.empty())
        return Obstacle{
            Kind::NotASender, m_name + " is not a valid sender: its main channel " +
                                  quote(info->nanomsgURI) + " " + channel.problem};
    const bool isPipeline = info->nanomsgProtocol == NanomsgProtocol::Pipeline;
    if (isPipeline && m_pubSubOnly)
        return Obstacle{
            Kind::NotPermitted, m_name + " is sent in pipeline, to a single receiver: not joined"};
    if (channel.mayJoin)
        return std::nullopt;
    return Obstacle{
        Kind::NotPermitted,
        "this user may not " + std::string(isPipeline ? "create " : "write to ") +
            quote(channel.socketFile) + toModeText(channel.socketFileMode) +
            ", the socket file of " + m_name + ": give its sender --socket-mode group or all"};
}

std::optional<Gatekeeper::Obstacle> Gatekeeper::findObstacle(const SenderProbe& answer) const
{
    const bool hasClosed = answer.closedEarly && !answer.sequenceNr;
    if (hasClosed && (!answer.initialInfo || m_isPatient))
        return makeFlapping();
    const uid_t user = answer.user.value_or(findOverflowUser());
    const std::optional<InitialInfo>& info = answer.initialInfo;
    std::optional<Obstacle> obstacle =
        judgeGreeting(info, user, info ? checkChannel(*info, user) : ChannelCheck());
    if (obstacle || !answer.fourcc)
        return obstacle;
    const std::string problem = m_findCodecProblem(answer);
    if (problem.empty())
        return std::nullopt;
    return Obstacle{Kind::CannotPlay, "cannot play " + m_name + ": " + problem, *answer.fourcc};
}

Gatekeeper::Step Gatekeeper::judgeAnswer(const SenderProbe& answer, TimeValue durationNs)
{
    if (!answer.reached)
        return judgeGone();
    const bool hasHung = !answer.initialInfo && answer.closedEarly && durationNs >= QuickCloseNs;
    if (answer.busy || hasHung)
        return {.pauseMs = BusyPauseMs};

    std::optional<Obstacle> obstacle = findObstacle(answer);
    const bool isSeen = obstacle.has_value();
    const std::optional<Obstacle> refusal = std::exchange(m_refusal, std::nullopt);
    if (!isSeen)
        obstacle = refusal;
    // Where only the receiver has found something, it tries again.
    if (obstacle && ++m_failedChecks < NeededChecks)
    {
        m_mustAsk = isSeen;
        return {.pauseMs = FirstPauseMs << (m_failedChecks - 1), .joins = !isSeen};
    }
    const std::optional<Obstacle> setback = std::exchange(m_setback, std::nullopt);
    m_mustAsk = obstacle || setback;
    if (obstacle)
    {
        m_failedChecks = 0;
        return {.news = toNews(*obstacle), .pauseMs = PauseMs};
    }
    if (setback)
        return {.news = toNews(*setback), .pauseMs = m_failurePause.getNext()};
    return {.joins = true};
}

Gatekeeper::Step Gatekeeper::judgeGone()
{
    // The sender may still be there: without a descriptor it cannot be asked.
    const std::optional<Obstacle> setback = std::exchange(m_setback, std::nullopt);
    m_refusal.reset();
    m_mustAsk = false;
    if (setback && setback->kind == Kind::Failed)
        return {.news = toNews(*setback), .joins = true};
    forgetReports();
    return {.joins = true};
}

void Gatekeeper::onRefusal(Obstacle obstacle)
{
    m_refusal = std::move(obstacle);
    m_mustAsk = true;
}

Gatekeeper::Step Gatekeeper::onSetback(Setback setback)
{
    m_mustAsk = true;
    m_isPatient = false;
    // Many a sender ends once.
    const bool isAlone = ++m_numSetbacks == 1 && setback != Setback::WorkerEnded;
    const int pauseMs = isAlone ? 0 : m_restartPause.getNext();
    switch (setback)
    {
    case Setback::Doubt:
        // A refusal is told as what it is.
        if (m_refusal || ++m_numDoubts < NeededChecks)
            break;
        [[fallthrough]];
    case Setback::Flapping:
        m_isPatient = true;
        m_setback = makeFlapping();
        break;
    case Setback::NoChannel:
        m_setback = {
            Kind::Failed, "cannot join " + m_name +
                              ": its main channel cannot be opened; the library's log says why"};
        break;
    case Setback::WorkerEnded:
        // Another process has a descriptor of the receiver's: a forked child, say, that runs
        // destructors.
        return {
            .news = toNews(
                {Kind::Failed, "the receiver of " + m_name +
                                   " ended unexpectedly: starting it again. A forked child must "
                                   "end with _exit()"}),
            .pauseMs = pauseMs};
    }
    return {.pauseMs = pauseMs};
}

Gatekeeper::Step Gatekeeper::onFailedStart(const std::string& problem)
{
    m_mustAsk = true;
    return {
        .news = toNews({Kind::Failed, "cannot start to receive: " + problem}),
        .pauseMs = m_failurePause.getNext()};
}

int Gatekeeper::getAnnouncementTimeoutMs() const
{
    return m_isPatient ? PatientAnnouncementTimeoutMs : AnnouncementTimeoutMs;
}

std::optional<Gatekeeper::Obstacle> Gatekeeper::toNews(const Obstacle& obstacle)
{
    if (std::exchange(m_told, obstacle.text) == obstacle.text)
        return std::nullopt;
    return obstacle;
}

} // namespace vlx::kit
