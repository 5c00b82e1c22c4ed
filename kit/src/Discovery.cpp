#include <cerrno>

#include <AbstractName.hpp>
#include <Descriptors.hpp>
#include <Fourcc.hpp>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <vlxkit/Discovery.hpp>

#include "SenderQuestion.hpp"

namespace vlx::kit
{

SenderProbe probeSender(const std::string& name, std::chrono::milliseconds timeout)
{
    using Clock = std::chrono::steady_clock;

    SenderQuestion question(name);
    const auto deadline = Clock::now() + timeout;
    while (!question.isOver())
    {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0)
            break;
        pollfd entry{question.getFD(), POLLIN, 0};
        pollUninterrupted(&entry, 1, static_cast<int>(left.count()));
        question.advance();
    }
    return question.getAnswer();
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

std::string toFourccText(std::uint32_t fourcc)
{
    return printFourcc(fourcc);
}

} // namespace vlx::kit
