#pragma once

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <log4cplus/loglevel.h>

namespace vlx::testing
{

/// One message as the library logged it.
struct LogEntry
{
    log4cplus::LogLevel level;
    std::string text;
};

std::ostream& operator<<(std::ostream& stream, const LogEntry& entry);

/// A message that a test looks for: its level, and its text or any matcher on it.
using LogExpectation = ::testing::Matcher<const LogEntry&>;

struct LogOfLevel
{
    log4cplus::LogLevel level;

    LogExpectation operator()(const ::testing::Matcher<const std::string&>& text) const;
};

inline constexpr LogOfLevel TraceLog{log4cplus::TRACE_LOG_LEVEL};
inline constexpr LogOfLevel DebugLog{log4cplus::DEBUG_LOG_LEVEL};
inline constexpr LogOfLevel InfoLog{log4cplus::INFO_LOG_LEVEL};
inline constexpr LogOfLevel WarnLog{log4cplus::WARN_LOG_LEVEL};
inline constexpr LogOfLevel ErrorLog{log4cplus::ERROR_LOG_LEVEL};

/// Everything that the library's logger was given since the test began, at every level. It is
/// printed by a test that fails, and by no other. Any thread.
class LogCapture
{
public:
    /// Makes the one capture the only appender of the logger "Vellox".
    static void install();

    static LogCapture& get();

    void clear();
    std::vector<LogEntry> getEntries() const;

    /// @return whether a message was logged
    bool contains(const LogExpectation& expected) const;

    std::size_t count(const LogExpectation& expected) const;

    /// @return success if all were logged in this order, whatever else stood between them
    ::testing::AssertionResult containsInOrder(const std::vector<LogExpectation>& expected) const;

    /// @return success if exactly these were logged, in this order
    ::testing::AssertionResult isExactly(const std::vector<LogExpectation>& expected) const;

    /// Waits until a message has been logged, possibly before the call.
    ///
    /// @param times  how often it must have been logged
    /// @return failure if it did not come within the usual deadline
    ::testing::AssertionResult waitFor(const LogExpectation& expected, std::size_t times = 1) const;

    /// Runs an action once, at the next message of this kind, on the thread that logs it and before
    /// it goes on. The action must not log.
    void onNext(const LogExpectation& expected, std::function<void()> action);

    /// Called by the appender.
    void record(LogEntry entry);

private:
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_added;
    std::vector<LogEntry> m_entries;
    std::optional<std::pair<LogExpectation, std::function<void()>>> m_action;
};

} // namespace vlx::testing
