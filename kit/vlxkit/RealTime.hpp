#pragma once

/// Real-time scheduling for the threads that move a stream's frames.

#include <vlx/VlxTypes.hpp>
#include <vlxkit/Status.hpp>

namespace vlx::kit
{

/// Use of round-robin real-time scheduling (SCHED_RR) for a stream's threads.
enum class RealTimeUse
{
    /// Unchanged: the threads inherit the scheduling of the thread that creates them.
    Off,
    /// Real-time if the user's limits permit it; otherwise ordinary, with one notice.
    Try,
    /// Real-time, or opening the stream fails.
    Require,
};

/// Requested scheduling of a stream's threads. It prevents lost frames on a busy machine and
/// changes little on a quiet one.
struct RealTime
{
    RealTimeUse use = RealTimeUse::Off; ///< Whether to request real-time scheduling.
    /// Round-robin priority, 1 to 99. A low one is enough: any is above all ordinary threads.
    int priority = 10;
};

/// Runs the calling thread, and all threads created while the scope exists, under the requested
/// scheduling. The destructor restores the scheduling of the caller; the created threads keep
/// theirs.
///
/// nanomsg has one thread for all streams of a process. It is created with the first stream, inside
/// that stream's scope, and lives until the last stream is closed. So request real-time scheduling
/// for the first stream of a process, or for all.
///
/// @thread construct and destroy on the same thread
class RealTimeScope
{
public:
    /// Requests the scheduling. Does not throw or log; see getStatus().
    ///
    /// @param wanted  the requested scheduling
    VLX_API explicit RealTimeScope(const RealTime& wanted);
    VLX_API ~RealTimeScope();

    RealTimeScope(const RealTimeScope&) = delete;
    RealTimeScope& operator=(const RealTimeScope&) = delete;

    /// @return success, or the reason why the thread keeps its scheduling and the limit to raise
    const Status& getStatus() const
    {
        return m_status;
    }

private:
    Status m_status;
    int m_formerPolicy = 0;
    int m_formerPriority = 0;
    bool m_changed = false;
};

} // namespace vlx::kit
