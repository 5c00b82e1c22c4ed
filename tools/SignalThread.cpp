#include "SignalThread.hpp"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

#include "ExitCodes.hpp"
#include "StopSignal.hpp"

namespace vlx::tool
{

namespace
{

constexpr int StopSignals[] = {SIGINT, SIGTERM, SIGHUP};
constexpr char EndOfThread = 0;

// What the handler needs; a handler may use nothing that locks.
std::atomic<int> handlerPipeFD = -1;
std::atomic<bool> stopIsUnderWay = false;
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);

sigset_t makeStopSet()
{
    sigset_t set;
    ::sigemptyset(&set);
    for (const int signalNumber : StopSignals)
        ::sigaddset(&set, signalNumber);
    return set;
}

extern "C" void handleStopSignal(int signalNumber)
{
    const int savedErrno = errno;
    if (stopIsUnderWay.exchange(true) && signalNumber == SIGINT)
        ::_exit(toExitCode(signalNumber));

    const char number = static_cast<char>(signalNumber);
    // A full pipe holds a request already.
    [[maybe_unused]] const ssize_t written = ::write(handlerPipeFD, &number, 1);
    errno = savedErrno;
}

void installHandler(int signalNumber)
{
    struct sigaction current
    {
    };
    ::sigaction(signalNumber, nullptr, &current);
    if (signalNumber == SIGHUP && current.sa_handler == SIG_IGN)
        return;

    struct sigaction action
    {
    };
    action.sa_handler = handleStopSignal;
    action.sa_flags = SA_RESTART;
    action.sa_mask = makeStopSet();
    ::sigaction(signalNumber, &action, nullptr);
}

} // unnamed namespace

void blockStopSignals()
{
    const sigset_t set = makeStopSet();
    ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
    ::signal(SIGPIPE, SIG_IGN);
    ::signal(SIGXFSZ, SIG_IGN);
}

SignalThread::SignalThread(StopSignal& stop) : m_stop(stop)
{
    if (::pipe2(m_pipe, O_CLOEXEC | O_NONBLOCK) != 0)
        throw std::system_error(errno, std::generic_category(), "pipe2");
    // The reading end waits; only the handler must never do that.
    ::fcntl(m_pipe[0], F_SETFL, 0);

    handlerPipeFD = m_pipe[1];
    for (const int signalNumber : StopSignals)
        installHandler(signalNumber);
    m_thread = std::thread([this] { loop(); });
}

SignalThread::~SignalThread()
{
    [[maybe_unused]] const ssize_t written = ::write(m_pipe[1], &EndOfThread, 1);
    m_thread.join();
    handlerPipeFD = -1;
    ::close(m_pipe[0]);
    ::close(m_pipe[1]);
}

void SignalThread::loop()
{
    const sigset_t set = makeStopSet();
    ::pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    for (;;)
    {
        char number = EndOfThread;
        const ssize_t count = ::read(m_pipe[0], &number, 1);
        if (count == 1 && number == EndOfThread)
            return;
        if (count == 1)
            m_stop.request(number);
        else if (errno != EINTR)
            return;
    }
}

} // namespace vlx::tool
