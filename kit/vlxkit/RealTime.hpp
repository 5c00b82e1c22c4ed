#pragma once

/// Real-time scheduling for the threads that move a stream's frames.

#include <string>

#include <vlx/VlxTypes.hpp>

namespace vlx::kit
{

/// Whether a stream's threads run under round-robin real-time scheduling.
enum class RealTimeUse
{
    /// Nothing is changed: the threads have the scheduling of the thread that makes them.
    Off,
    /// Real-time where the limits of the user permit it, otherwise ordinary, told in one notice.
    Try,
    /// Real-time, or opening the stream fails.
    Require,
};

/// Wanted scheduling of a stream's threads. On a busy machine it decides whether frames are lost;
/// on a quiet one it changes little.
struct RealTime
{
    RealTimeUse use = RealTimeUse::Off; ///< whether
    /// Round-robin priority, 1 to 99. Low ones suffice: any is above every ordinary thread.
    int priority = 10;
};

/// While it lives, the calling thread runs under the wanted scheduling, and so does every thread
/// that is created meanwhile: threads inherit it. Afterwards the caller has its own scheduling
/// back; the threads that were created keep what they have.
///
/// nanomsg has one thread for all streams of a process. It is created with the first stream, inside
/// this scope, and lives until the last is closed: one that exists already stays as it is. So
/// either the first stream of a process wants real-time scheduling, or all do.
///
/// @thread construct and destroy on the same thread
class RealTimeScope
{
public:
    /// Never throws and logs nothing; see getProblem().
    VLX_API explicit RealTimeScope(const RealTime& wanted);
    VLX_API ~RealTimeScope();

    RealTimeScope(const RealTimeScope&) = delete;
    RealTimeScope& operator=(const RealTimeScope&) = delete;

    /// @return empty if the thread has what was wanted; otherwise one line that says why it runs
    ///         under ordinary scheduling, and which limit to raise
    const std::string& getProblem() const
    {
        return m_problem;
    }

private:
    std::string m_problem;
    int m_formerPolicy = 0;
    int m_formerPriority = 0;
    bool m_changed = false;
};

} // namespace vlx::kit
