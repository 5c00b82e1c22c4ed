#pragma once

#include "support/VlxTest.hpp"

namespace vlx::testing
{

/// Callbacks, each written down as a line of text. Any thread.
class Recorder
{
public:
    std::vector<std::string> getEvents() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_events;
    }

    /// @return how many events begin so
    std::size_t count(const std::string& beginning) const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return static_cast<std::size_t>(std::count_if(
            m_events.begin(), m_events.end(),
            [&beginning](const std::string& event) { return event.starts_with(beginning); }));
    }

    /// @return failure if so many events that begin so did not come before the deadline
    ::testing::AssertionResult
    waitForEvent(const std::string& beginning, std::size_t times = 1) const
    {
        if (waitFor([&] { return count(beginning) >= times; }))
            return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << "not " << times << " times \"" << beginning
                                             << "\" in " << ::testing::PrintToString(getEvents());
    }

protected:
    void record(const std::string& event)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_events.push_back(event);
    }

private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_events;
};

} // namespace vlx::testing
