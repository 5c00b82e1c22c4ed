#pragma once

#include <atomic>
#include <chrono>
#include <stop_token>
#include <thread>

namespace vlx::tool
{

/// Blocks SIGINT, SIGTERM and SIGHUP in the calling thread and in all that it starts, so that no
/// library call is interrupted; ignores SIGPIPE and SIGXFSZ, so that writes fail with an error
/// instead. The first thing that main() does. The threads that log4cplus starts even earlier block
/// every signal themselves.
void blockStopSignals();

/// Takes SIGINT, SIGTERM and SIGHUP, on a thread of its own, and passes the request to stop to all
/// that wait. Only the first signal counts, but a SIGINT that comes 300 ms after it or later ends
/// the process at once. SIGHUP stays ignored where the parent ignores it.
///
/// One object per process.
///
/// @thread any
class StopSignal
{
public:
    /// @pre blockStopSignals() was called before any thread was started
    StopSignal();
    ~StopSignal();

    StopSignal(const StopSignal&) = delete;
    StopSignal& operator=(const StopSignal&) = delete;

    bool isRequested() const
    {
        return m_signalNumber != 0;
    }

    /// @return number of the signal that asked for the stop; 0 if none did
    int getSignalNumber() const
    {
        return m_signalNumber;
    }

    /// Sleeps until a point of CLOCK_MONOTONIC, or until a stop is asked for.
    ///
    /// @return whether a stop is asked for
    bool waitUntil(std::chrono::steady_clock::time_point deadline) const;

    /// @return a descriptor for poll() that becomes readable when a stop is asked for and stays so;
    ///         never read from it
    int getFD() const
    {
        return m_eventFD;
    }

    /// @return for std::stop_callback: its function runs on the signal's thread, or at once if a
    ///         stop was requested before
    std::stop_token getToken() const
    {
        return m_source.get_token();
    }

private:
    void loop();

    int m_eventFD;
    std::atomic<int> m_signalNumber = 0;
    std::atomic<bool> m_keepRunning = true;
    std::stop_source m_source;
    std::thread m_thread; // last: it uses all of the above
};

} // namespace vlx::tool
