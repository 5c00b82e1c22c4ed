#pragma once

#include <thread>

namespace vlx::tool
{

class StopSignal;

/// Blocks SIGINT, SIGTERM and SIGHUP in the calling thread and in all that it starts, so that no
/// library call is interrupted; ignores SIGPIPE and SIGXFSZ, so that writes fail with an error
/// instead. The first thing that main() does.
void blockStopSignals();

/// The one thread that takes SIGINT, SIGTERM and SIGHUP and turns them into a stop request. A second
/// SIGINT ends the process at once. SIGHUP stays ignored where the parent ignores it.
///
/// Blocking the signals is not enough: log4cplus starts threads before main(), and the system may
/// deliver to them. Whichever thread the handler runs on, it only passes the number on to this one.
///
/// One object per process.
class SignalThread
{
public:
    /// @pre blockStopSignals() was called and no thread was started before it
    explicit SignalThread(StopSignal& stop);
    ~SignalThread();

    SignalThread(const SignalThread&) = delete;
    SignalThread& operator=(const SignalThread&) = delete;

private:
    void loop();

    StopSignal& m_stop;
    int m_pipe[2] = {-1, -1};
    std::thread m_thread;
};

} // namespace vlx::tool
