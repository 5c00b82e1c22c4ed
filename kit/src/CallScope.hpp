#pragma once

// Detection of misused calls, which stop the process with a text that names the correct use.

#include <atomic>
#include <utility>

namespace vlx::kit
{

/// Marks the calling thread as being inside a callback of an object.
class CallbackScope
{
public:
    explicit CallbackScope(const void* object) : m_former(std::exchange(s_current, object)) {}

    ~CallbackScope()
    {
        s_current = m_former;
    }

    CallbackScope(const CallbackScope&) = delete;
    CallbackScope& operator=(const CallbackScope&) = delete;

    /// @return whether the calling thread is inside a callback of the object
    static bool isInside(const void* object)
    {
        return s_current == object;
    }

private:
    static inline thread_local const void* s_current = nullptr;

    const void* const m_former;
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
