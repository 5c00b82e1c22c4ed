#pragma once

#include <atomic>
#include <thread>

namespace vlx::tool
{

class StopSignal;

/// Blocks SIGINT, SIGTERM and SIGHUP in the calling thread and in all that it starts, so that no
/// library call is interrupted; ignores SIGPIPE and SIGXFSZ, so that writes fail with an error
/// instead. The first thing that main() does. The threads that log4cplus starts even earlier block
/// every signal themselves.
void blockStopSignals();

/// The one thread that takes SIGINT, SIGTERM and SIGHUP and turns them into a stop request. A second
/// SIGINT ends the process at once. SIGHUP stays ignored where the parent ignores it.
///
/// One object per process.
class SignalThread
{
public:
    /// @pre blockStopSignals() was called before any thread was started
    explicit SignalThread(StopSignal& stop);
    ~SignalThread();

    SignalThread(const SignalThread&) = delete;
    SignalThread& operator=(const SignalThread&) = delete;

private:
    void loop();

    StopSignal& m_stop;
    std::atomic<bool> m_keepRunning = true;
    std::thread m_thread;
};

} // namespace vlx::tool
