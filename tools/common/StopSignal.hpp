#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
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

private:
    friend class StopListener;

    void loop();
    void request(int signalNumber);

    int m_eventFD;
    std::atomic<int> m_signalNumber = 0;
    std::atomic<bool> m_keepRunning = true;
    std::mutex m_mutex;
    std::function<void()> m_listener; // guarded by m_mutex
    std::thread m_thread;             // last: it uses all of the above
};

/// Has a function called, once at most, when a stop is asked for; at once if that has happened
/// already. One listener at a time.
///
/// The function runs on the stop signal's thread, or inside the constructor.
///
/// @life the function is not running and will not be called any more once the listener is destroyed
class StopListener
{
public:
    StopListener(StopSignal& stop, std::function<void()> function);
    ~StopListener();

    StopListener(const StopListener&) = delete;
    StopListener& operator=(const StopListener&) = delete;

private:
    StopSignal& m_stop;
};

} // namespace vlx::tool
