#include <algorithm>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <vlxkit/Discovery.hpp>

#include "RetryPause.hpp"
#include "SenderQuestion.hpp"
#include "SenderSearch.hpp"
#include "UnixSockets.hpp"

namespace vlx::kit
{

namespace
{

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// A sender that takes longer counts as one that does not answer.
constexpr auto AnswerTimeout = milliseconds(500);

// Between two questions to a sender with a full backlog, or without a sequence.
constexpr int FirstPauseMs = 500;
constexpr int LongestPauseMs = 10'000;

// Between two searches. The first ones find a sender that has just begun to listen, and whose
// thread, by which it is known, did not run yet.
constexpr int FirstSearchMs = 50;
constexpr int LongestSearchMs = 10'000;

// Each takes a descriptor.
constexpr std::size_t MaxQuestions = 200;

/// Names in the abstract namespace and the sockets that listen there: another socket under the same
/// name is another sender.
using Listeners = std::map<std::string, std::uint64_t>;

Listeners findListeners(const UnixSockets& sockets)
{
    Listeners listeners;
    for (const auto& [inode, socket] : sockets.byInode)
    {
        if (socket.isListening && socket.name.starts_with('\0'))
            listeners.emplace(socket.name.substr(1), inode);
    }
    return listeners;
}

bool isSame(const SenderProbe& left, const SenderProbe& right)
{
    const auto list = [](const SenderProbe& probe)
    {
        const InitialInfo info = probe.initialInfo.value_or(InitialInfo());
        return std::tuple(
            probe.initialInfo.has_value(), info.nanomsgURI, info.nanomsgProtocol,
            info.timeSyncProtocol, info.timeSyncIPAddress, info.timeSyncPort, probe.sequenceNr,
            probe.fourcc, probe.codecHeader, probe.ring, probe.mayJoin);
    };
    return list(left) == list(right);
}

} // unnamed namespace

class SenderWatch::Impl
{
public:
    explicit Impl(milliseconds interval) : m_interval(interval) {}

    std::vector<SenderChange> look()
    {
        m_changes.clear();
        const auto now = Clock::now();
        const UnixSockets sockets = readUnixSockets();
        Listeners listeners = findListeners(sockets);
        const bool isNews = listeners != m_listeners;
        if (isNews)
            m_searchPause.reset();
        if (isNews || now >= m_searchDue)
        {
            m_listeners = std::move(listeners);
            m_searchDue = now + milliseconds(m_searchPause.getNext());
            search(sockets);
        }
        for (auto& [key, sender] : m_senders)
        {
            // A question is itself a connection to the sender.
            const std::size_t receivers = sender.question
                                              ? sender.entry.receivers
                                              : countConnections(sockets, '\0' + sender.entry.name);
            sender.isNews |= std::exchange(sender.entry.receivers, receivers) != receivers;
            ask(sender, now);
            report(sender);
        }
        return std::move(m_changes);
    }

    const SenderList& getList() const
    {
        return m_list;
    }

private:
    struct Sender
    {
        SenderEntry entry;
        SenderProbe probe = {};
        std::unique_ptr<SenderQuestion> question = {}; // until it is answered
        Clock::time_point asked = {};
        Clock::time_point due = {}; // of the next question
        RetryPause pause = {FirstPauseMs, LongestPauseMs};
        bool isSettled = false; // has answered, or failed to
        bool isNews = false;
        bool isReported = false;
    };

    void search(const UnixSockets& sockets)
    {
        m_list = searchSenders(sockets).list;
        std::map<std::uint64_t, Sender> before = std::exchange(m_senders, {});
        for (const SenderEntry& entry : m_list.senders)
        {
            const auto listener = m_listeners.find(entry.name);
            if (listener == m_listeners.end())
                continue;
            auto known = before.extract(listener->second);
            if (known.empty())
                m_senders.emplace(listener->second, Sender{.entry = entry});
            else
                m_senders.insert(std::move(known));
        }
        for (auto& [key, sender] : before)
        {
            if (sender.isReported)
                m_changes.push_back(
                    {SenderChange::Kind::Gone, std::move(sender.entry), std::move(sender.probe)});
        }
    }

    /// Begins, continues or ends the question to a sender.
    void ask(Sender& sender, Clock::time_point now)
    {
        if (!sender.question)
        {
            if (now < sender.due || countQuestions() >= MaxQuestions)
                return;
            sender.question = std::make_unique<SenderQuestion>(sender.entry.name);
            sender.asked = now;
        }
        sender.question->advance();
        const bool isOver = sender.question->isOver();
        if (!isOver && now - sender.asked < AnswerTimeout)
            return;
        SenderProbe answer = sender.question->getAnswer();
        sender.isNews |= !isSame(answer, sender.probe);
        sender.probe = std::move(answer);
        sender.isSettled = true;
        // Otherwise it stays: a second one would take another place in the sender's backlog.
        if (!isOver && !sender.probe.initialInfo)
            return;
        sender.question.reset();
        if (sender.probe.sequenceNr)
            sender.pause.reset();
        sender.due =
            now + (sender.probe.sequenceNr ? m_interval : milliseconds(sender.pause.getNext()));
    }

    void report(Sender& sender)
    {
        if (!sender.isSettled || (sender.isReported && !sender.isNews))
            return;
        const auto kind =
            sender.isReported ? SenderChange::Kind::Changed : SenderChange::Kind::Came;
        m_changes.push_back({kind, sender.entry, sender.probe});
        sender.isReported = true;
        sender.isNews = false;
    }

    std::size_t countQuestions() const
    {
        return static_cast<std::size_t>(std::count_if(
            m_senders.begin(), m_senders.end(),
            [](const auto& sender) { return sender.second.question != nullptr; }));
    }

    const milliseconds m_interval;
    SenderList m_list;
    Listeners m_listeners;
    std::map<std::uint64_t, Sender> m_senders; // by the numbers of their listening sockets
    RetryPause m_searchPause = {FirstSearchMs, LongestSearchMs};
    Clock::time_point m_searchDue;
    std::vector<SenderChange> m_changes;
};

SenderWatch::SenderWatch(milliseconds interval) : m_impl(std::make_unique<Impl>(interval)) {}

SenderWatch::~SenderWatch() = default;

SenderWatch::SenderWatch(SenderWatch&& other) noexcept = default;

SenderWatch& SenderWatch::operator=(SenderWatch&& other) noexcept = default;

std::vector<SenderChange> SenderWatch::look()
{
    return m_impl->look();
}

const SenderList& SenderWatch::getList() const
{
    return m_impl->getList();
}

} // namespace vlx::kit
