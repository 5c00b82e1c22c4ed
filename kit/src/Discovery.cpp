#include <algorithm>
#include <cerrno>
#include <deque>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <vlxkit/Discovery.hpp>

#include "SenderQuestion.hpp"
#include "UnixSockets.hpp"
#include "base/AbstractName.hpp"
#include "base/Descriptors.hpp"
#include "base/Fourcc.hpp"

namespace vlx::kit
{

namespace
{

// Each takes a descriptor.
constexpr std::size_t MaxQuestions = 200;

using Clock = std::chrono::steady_clock;

/// Waits until all questions are over, or the time is.
///
/// @return false if stopFD became readable
bool waitForAnswers(std::deque<SenderQuestion>& questions, Clock::time_point deadline, int stopFD)
{
    while (true)
    {
        std::vector<pollfd> entries = {{stopFD, POLLIN, 0}};
        for (SenderQuestion& question : questions)
        {
            if (!question.isOver())
                entries.push_back({question.getFD(), POLLIN, 0});
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        if (entries.size() == 1 || left.count() <= 0)
            return true;
        pollUninterrupted(entries.data(), entries.size(), static_cast<int>(left.count()));
        if (entries.front().revents != 0)
            return false;
        for (SenderQuestion& question : questions)
            question.advance();
    }
}

bool probeBatch(
    const std::vector<std::string>& names,
    std::size_t begin,
    std::size_t end,
    Clock::time_point deadline,
    int stopFD,
    std::vector<SenderProbe>& probes)
{
    std::deque<SenderQuestion> questions;
    for (std::size_t i = begin; i < end; ++i)
        questions.emplace_back(names[i]);
    const bool goesOn = waitForAnswers(questions, deadline, stopFD);
    for (std::size_t i = begin; i < end; ++i)
        probes[i] = questions[i - begin].getAnswer();
    return goesOn;
}

} // unnamed namespace

SenderProbe probeSender(const std::string& name, std::chrono::milliseconds timeout)
{
    return probeSenders({name}, timeout).front();
}

std::vector<SenderProbe>
probeSenders(const std::vector<std::string>& names, std::chrono::milliseconds timeout, int stopFD)
{
    std::vector<SenderProbe> probes(names.size());
    // So that many mute ones cannot take the time of all others.
    const auto numBatches = static_cast<int>((names.size() + MaxQuestions - 1) / MaxQuestions);
    for (std::size_t begin = 0; begin < names.size(); begin += MaxQuestions)
    {
        const std::size_t end = std::min(names.size(), begin + MaxQuestions);
        const auto deadline = Clock::now() + timeout / numBatches;
        if (!probeBatch(names, begin, end, deadline, stopFD, probes))
            break;
    }
    return probes;
}

bool isNameTaken(const std::string& name)
{
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const socklen_t length = setAbstractName(address, name);
    const bool isTaken =
        ::bind(fd, reinterpret_cast<const sockaddr*>(&address), length) != 0 && errno == EADDRINUSE;
    ::close(fd);
    return isTaken;
}

bool isSenderPresent(const std::string& name)
{
    const auto sockets = readUnixSockets().byInode;
    const std::string address = '\0' + name;
    return std::any_of(
        sockets.begin(), sockets.end(),
        [&](const auto& socket)
        { return socket.second.isListening && socket.second.name == address; });
}

std::string toFourccText(std::uint32_t fourcc)
{
    return printFourcc(fourcc);
}

} // namespace vlx::kit
