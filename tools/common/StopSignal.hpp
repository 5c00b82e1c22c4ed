#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

namespace vlx::tool
{

/// Carries the wish to stop from the signal thread to whoever waits.
///
/// @thread any
class StopSignal
{
public:
    StopSignal();
    ~StopSignal();

    StopSignal(const StopSignal&) = delete;
    StopSignal& operator=(const StopSignal&) = delete;

    /// @param signalNumber  of the signal that asks for the stop; only the first call counts
    void request(int signalNumber);

    bool isRequested() const;

    /// @return number of the signal that asked for the stop; 0 if none did
    int getSignalNumber() const;

    /// Sleeps until a point of CLOCK_MONOTONIC, or until a stop is asked for.
    ///
    /// @return whether a stop is asked for
    bool waitUntil(std::chrono::steady_clock::time_point deadline) const;

    /// @return a descriptor for poll() that becomes readable when a stop is asked for and stays so;
    ///         never read from it
    int getFD() const;

private:
    friend class StopListener;

    int m_eventFD;
    std::atomic<int> m_signalNumber = 0;
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_condition;
    std::function<void()> m_listener; // guarded by m_mutex
};

/// Has a function called, once at most, when a stop is asked for; at once if that has happened
/// already. One listener at a time.
///
/// The function runs on the signal thread, or inside the constructor. It must not use the stop
/// signal's waits.
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
