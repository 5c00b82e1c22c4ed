#pragma once

#include <cstdint>
#include <mutex>

#include <miscUtils/TimeValue.hpp>

namespace vlx::kit
{

/// Notices a receiver that is joined and gets no frames.
///
/// A receiver that missed the announcement of a sequence refuses every frame until the next one or
/// until it joins again: shut it down then and initialise it again. A sender that is merely paused
/// looks the same, so the limit doubles with each restart that brought nothing, up to sixteenfold.
///
/// All times are nanoseconds on one steady clock.
///
/// @thread any
class StallWatch
{
public:
    /// @param limitNs  time without a frame after which a joined receiver counts as stalled; 0: never
    explicit StallWatch(miscUtils::TimeValue limitNs);

    /// The receiver has joined a sender.
    void onRunning(miscUtils::TimeValue now);

    /// The receiver is not joined any more, by loss or by shutdown.
    void onNotRunning();

    /// A frame has arrived.
    void onFrame(miscUtils::TimeValue now);

    /// The receiver is being restarted because of a stall.
    void onRestart();

    bool isStalled(miscUtils::TimeValue now) const;

    /// @return restarts so far
    std::uint64_t getNumRestarts() const;

private:
    mutable std::mutex m_mutex;
    // All guarded by m_mutex.
    const miscUtils::TimeValue m_limitNs;
    miscUtils::TimeValue m_lastSign = 0; // the join, or the last frame after it
    bool m_running = false;
    unsigned m_vainRestarts = 0; // since the last frame
    std::uint64_t m_restarts = 0;
};

} // namespace vlx::kit
