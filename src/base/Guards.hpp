#pragma once

#include <utility>

namespace vlx
{

/// Runs an action when the scope is left, by return or by exception, unless it was dismissed. Use
/// it to undo an incomplete set-up or to release a resource.
template <class Action>
class ScopeGuard
{
public:
    explicit ScopeGuard(Action action) : m_action(std::move(action)) {}

    ~ScopeGuard()
    {
        if (m_armed)
            m_action();
    }

    ScopeGuard(const ScopeGuard&) = delete;
    ScopeGuard& operator=(const ScopeGuard&) = delete;

    void dismiss()
    {
        m_armed = false;
    }

private:
    Action m_action;
    bool m_armed = true;
};

} // namespace vlx
