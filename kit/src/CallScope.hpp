#pragma once

// Detection of misused calls, which stop the process with a text that names the correct use.

#include <atomic>
#include <thread>

namespace vlx::kit
{

/// The thread that is inside a callback of an object, whose callbacks never overlap.
using CallbackThread = std::atomic<std::thread::id>;

/// Marks the calling thread as being inside a callback.
class CallbackScope
{
public:
    explicit CallbackScope(CallbackThread& thread)
        : m_thread(thread), m_former(thread.exchange(std::this_thread::get_id()))
    {
    }

    ~CallbackScope()
    {
        m_thread = m_former;
    }

    CallbackScope(const CallbackScope&) = delete;
    CallbackScope& operator=(const CallbackScope&) = delete;

    /// @return whether it is the calling thread
    static bool isInside(const CallbackThread& thread)
    {
        return thread == std::this_thread::get_id();
    }

private:
    CallbackThread& m_thread;
    const std::thread::id m_former;
};

/// Detects overlapping calls.
class ExclusiveCall
{
public:
    explicit ExclusiveCall(std::atomic<bool>& isBusy)
        : m_isBusy(isBusy), m_isAlone(!isBusy.exchange(true))
    {
    }

    ~ExclusiveCall()
    {
        if (m_isAlone)
            m_isBusy = false;
    }

    ExclusiveCall(const ExclusiveCall&) = delete;
    ExclusiveCall& operator=(const ExclusiveCall&) = delete;

    bool isAlone() const
    {
        return m_isAlone;
    }

private:
    std::atomic<bool>& m_isBusy;
    const bool m_isAlone;
};

} // namespace vlx::kit
