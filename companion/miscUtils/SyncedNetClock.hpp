#pragma once

#include <functional>
#include <memory>
#include <string>

#include <miscUtils/TimeValue.hpp>

namespace miscUtils
{

/// A clock that follows a network clock (a GStreamer net time provider) and says whether it does.
///
/// Thread-safe: any operation from any thread; only destruction must not run beside another call.
/// One thread of its own, while synchronising, watches the provider and makes every callback. The
/// first use in a process initialises GStreamer on that thread, which can take 0.4 s and forks a
/// short-lived helper process. GStreamer keeps a further thread, which asks the provider for its
/// time, for 60 seconds after the last use of an address, and in these 60 seconds each further
/// start with that address leaks 296 bytes inside GStreamer. All clocks of a process that follow
/// the same provider share GStreamer's estimate: the last window size given and the largest round
/// trip limit hold for all of them.
class __attribute__((visibility("default"))) SyncedNetClock
{
public:
    /// A clock that follows nothing yet.
    SyncedNetClock();

    /// Calls stopSynchronization().
    ///
    /// In a forked child the copy of a clock that was started does nothing here, nor when it is
    /// stopped: the memory stays, and the parent's clock goes on. Starting the copy begins anew.
    ///
    /// @pre not called from inside a callback of this clock, not even from one that has stopped the
    ///      clock before; checked by assertion
    ~SyncedNetClock();

    SyncedNetClock(const SyncedNetClock&) = delete;
    SyncedNetClock& operator=(const SyncedNetClock&) = delete;

    /// Starts to follow a provider, after stopping whatever was followed before. Returns without
    /// waiting for the first answer. An address that cannot be resolved is tried again every
    /// second; a provider that cannot be reached is asked until it answers.
    ///
    /// If the system has no thread left, the log4cplus logger "Vellox" gets one ERROR, and the
    /// clock never synchronises.
    ///
    /// @param address         numeric IP address or host name of the provider; a name is resolved
    ///                        on the clock's own thread, an IPv4 address preferred; one that is no
    ///                        valid UTF-8 is never resolved
    /// @param port            UDP port of the provider, 1 to 65535; with any other value the clock
    ///                        never synchronises
    /// @param windowSize      observations that the estimate is taken over, kept within 2 to 1024
    /// @param roundTripLimit  nanoseconds; an answer that took longer is not used; 0 for no limit
    /// @param onStateChange   called at each change of isSynchronized() that is not due to a start
    ///                        or stop, on the clock's own thread, with no lock held, never from
    ///                        inside this call; may be empty. It may call any operation of this
    ///                        clock. It must not throw
    /// @thread any. From inside a callback, of this clock or another, the call waits for nobody,
    ///         and the new provider's callbacks may overlap with the rest of that callback
    /// @life   the function object is kept until the clock is stopped, or, when stopped from inside
    ///         a callback, until the next start or stop from outside, or the destruction
    void startSynchronization(
        std::string address,
        unsigned int port,
        unsigned int windowSize,
        unsigned long roundTripLimit,
        std::function<void()> onStateChange);

    /// Stops following. No callback starts afterwards, and one in progress is waited for, unless
    /// the call comes from inside it: then the clock's thread ends by itself after the callback.
    /// Harmless when nothing is followed, and while another call from outside is stopping the
    /// clock: it then returns at once.
    /// While GStreamer is being initialised the call waits for that.
    ///
    /// @thread any; without any lock that the callback takes, unless nothing is followed
    void stopSynchronization();

    /// @return whether the clock follows its provider now: false before the first synchronisation,
    ///         when the provider has been silent for about 3 seconds, and while the clock adapts to
    ///         a provider whose time has jumped, which takes some tenths of a second
    bool isSynchronized() const;

    /// Tells the provider's time by the present estimate. It is not made monotonic: a refined
    /// estimate may set it back by a part of the round trip time, a jump of the provider by any
    /// amount.
    ///
    /// @return nanoseconds on the provider's clock; 0 when nothing is followed, not yet
    ///         synchronised, or adapting to a jump. While the provider is merely silent the last
    ///         estimate is continued.
    TimeValue getSynchronizedTime() const;

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace miscUtils
