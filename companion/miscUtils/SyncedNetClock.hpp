#pragma once

#include <functional>
#include <memory>
#include <string>

#include <miscUtils/TimeValue.hpp>

namespace miscUtils
{

/// A clock that follows a network clock, a GStreamer net time provider.
///
/// Thread-safe: call any operation from any thread; only destruction must not overlap with another
/// call. While started, the clock has a thread that watches the provider and makes every callback.
///
/// The first use in a process initialises GStreamer on that thread, which can take 0.4 s and forks
/// a short-lived helper process. GStreamer polls the provider on another thread, and keeps that
/// thread for 60 seconds after the last use of an address; during these 60 seconds each further
/// start with the same address leaks 296 bytes inside GStreamer. All clocks of a process that
/// follow one provider share GStreamer's estimate: the last window size and the largest round-trip
/// limit apply to all of them.
class __attribute__((visibility("default"))) SyncedNetClock
{
public:
    /// Creates a clock that follows no provider.
    SyncedNetClock();

    /// Calls stopSynchronization().
    ///
    /// In a forked child, stopping or destroying the copy of a started clock does nothing: its
    /// memory is not freed, and the parent's clock continues. Starting the copy makes it a new
    /// clock.
    ///
    /// @pre not called from inside a callback of this clock, even if that callback has stopped the
    ///      clock; checked by assertion
    ~SyncedNetClock();

    SyncedNetClock(const SyncedNetClock&) = delete;
    SyncedNetClock& operator=(const SyncedNetClock&) = delete;

    /// Starts to follow a provider, after stopping the previous one. Returns without waiting for
    /// the first answer. Retries an address that cannot be resolved every second, and polls an
    /// unreachable provider until it answers.
    ///
    /// If the system has no thread left, logs one ERROR to the log4cplus logger "Vellox"; the clock
    /// then never synchronises.
    ///
    /// @param address         numeric IP address or host name of the provider. A name is resolved
    ///                        on the clock's thread, with IPv4 preferred. One that is not valid
    ///                        UTF-8 is never resolved
    /// @param port            UDP port of the provider, 1 to 65535; with any other value the clock
    ///                        never synchronises
    /// @param windowSize      number of observations in the estimate, limited to 2 to 1024
    /// @param roundTripLimit  longest round trip in nanoseconds; a slower answer is ignored; 0: no
    ///                        limit
    /// @param onStateChange   called when isSynchronized() changes, except by a start or stop; may
    ///                        be empty. Runs on the clock's thread, with no lock held, never inside
    ///                        this call. It may call any operation of this clock, and must not
    ///                        throw
    /// @thread any. From inside a callback of any clock the call does not wait, and callbacks of
    ///         the new provider may overlap with the rest of that callback
    /// @life   the function object is kept until the clock is stopped; if it was stopped inside a
    ///         callback, until the next start or stop outside of one, or the destruction
    void startSynchronization(
        std::string address,
        unsigned int port,
        unsigned int windowSize,
        unsigned long roundTripLimit,
        std::function<void()> onStateChange);

    /// Stops following the provider. No callback starts after the return. The call waits for a
    /// callback in progress, unless it comes from inside that callback: then the clock's thread
    /// ends after the callback. It also waits while GStreamer is being initialised. It returns at
    /// once if no provider is followed, or if another call outside of a callback is stopping the
    /// clock.
    ///
    /// @thread any; hold no lock that the callback takes, unless no provider is followed
    void stopSynchronization();

    /// Returns whether the clock is synchronised to its provider.
    ///
    /// @return false before the first synchronisation, after the provider has been silent for about
    ///         3 seconds, and while the clock adapts to a jump of the provider's time, which takes
    ///         some tenths of a second
    bool isSynchronized() const;

    /// Returns the provider's time by the present estimate. It is not monotonic: a better estimate
    /// may set it back by a part of the round-trip time, a jump of the provider by any amount.
    ///
    /// @return nanoseconds on the provider's clock; 0 if no provider is followed, before the first
    ///         synchronisation, and while adapting to a jump. While the provider is silent the last
    ///         estimate continues
    TimeValue getSynchronizedTime() const;

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace miscUtils
