#include "SignalThread.hpp"

#include <csignal>

#include <pthread.h>
#include <unistd.h>

#include "ExitCodes.hpp"
#include "StopSignal.hpp"

namespace vlx::tool
{

namespace
{

constexpr int EndOfThreadSignal = SIGURG; // sent to the thread alone; ignored by default

sigset_t makeStopSet()
{
    sigset_t set;
    ::sigemptyset(&set);
    ::sigaddset(&set, SIGINT);
    ::sigaddset(&set, SIGTERM);
    ::sigaddset(&set, SIGHUP);
    return set;
}

bool isIgnored(int signalNumber)
{
    struct sigaction action
    {
    };
    ::sigaction(signalNumber, nullptr, &action);
    return action.sa_handler == SIG_IGN;
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

SignalThread::SignalThread(StopSignal& stop) : m_stop(stop), m_thread([this] { loop(); }) {}

SignalThread::~SignalThread()
{
    m_keepRunning = false;
    ::pthread_kill(m_thread.native_handle(), EndOfThreadSignal);
    m_thread.join();
}

void SignalThread::loop()
{
    sigset_t set = makeStopSet();
    if (isIgnored(SIGHUP))
        ::sigdelset(&set, SIGHUP);
    ::sigaddset(&set, EndOfThreadSignal);
    ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
    while (m_keepRunning)
    {
        int number = 0;
        if (::sigwait(&set, &number) != 0 || number == EndOfThreadSignal)
            continue;
        if (m_stop.isRequested() && number == SIGINT)
            ::_exit(toExitCode(number));
        m_stop.request(number);
    }
}

} // namespace vlx::tool
