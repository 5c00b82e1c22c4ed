#include "StopSignal.hpp"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <system_error>

#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "ExitCodes.hpp"
#include "Poll.hpp"

namespace vlx::tool
{

namespace
{

// timeout(1) and others send one press to the process and to its group.
constexpr auto OnePress = std::chrono::milliseconds(300);

sigset_t makeStopSet()
{
    sigset_t set;
    ::sigemptyset(&set);
    ::sigaddset(&set, SIGINT);
    ::sigaddset(&set, SIGTERM);
    ::sigaddset(&set, SIGHUP);
    return set;
}

} // unnamed namespace

void blockStopSignals()
{
    const sigset_t set = makeStopSet();
    ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
    // Shells start background jobs with SIGINT ignored, and an ignored signal is never waited for.
    ::signal(SIGINT, SIG_DFL);
    ::signal(SIGTERM, SIG_DFL);
    ::signal(SIGPIPE, SIG_IGN);
    ::signal(SIGXFSZ, SIG_IGN);
}

StopSignal::StopSignal() : m_eventFD(::eventfd(0, EFD_CLOEXEC))
{
    if (m_eventFD < 0)
        throw std::system_error(errno, std::generic_category(), "eventfd");
    m_thread = std::thread([this] { loop(); });
}

StopSignal::~StopSignal()
{
    m_keepRunning = false;
    ::pthread_kill(m_thread.native_handle(), SIGINT); // wakes it alone
    m_thread.join();
    ::close(m_eventFD);
}

bool StopSignal::waitUntil(std::chrono::steady_clock::time_point deadline) const
{
    return waitForEvents(-1, 0, *this, deadline) == PollResult::Stopped;
}

void StopSignal::loop()
{
    sigset_t set = makeStopSet();
    struct sigaction hangup
    {
    };
    ::sigaction(SIGHUP, nullptr, &hangup);
    if (hangup.sa_handler == SIG_IGN)
        ::sigdelset(&set, SIGHUP);
    int number = 0;
    std::chrono::steady_clock::time_point firstPress;
    while (::sigwait(&set, &number) == 0 && m_keepRunning)
    {
        const auto now = std::chrono::steady_clock::now();
        if (!isRequested())
        {
            firstPress = now;
            m_signalNumber = number;
            const std::uint64_t one = 1;
            // Cannot fail: the counter is far from its limit.
            [[maybe_unused]] const ssize_t written = ::write(m_eventFD, &one, sizeof(one));
            m_source.request_stop();
        }
        else if (number == SIGINT && now - firstPress >= OnePress)
        {
            ::_exit(toExitCode(number));
        }
    }
}

} // namespace vlx::tool
