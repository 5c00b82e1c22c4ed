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
    std::string function; ///< signature of the function that logged it
};

/// A message that a test looks for: its level, and its text or any matcher on it.
struct LogExpectation
{
    log4cplus::LogLevel level;
    ::testing::Matcher<const std::string&> text;

    bool matches(const LogEntry& entry) const;
};

LogExpectation traceLog(::testing::Matcher<const std::string&> text);
LogExpectation debugLog(::testing::Matcher<const std::string&> text);
LogExpectation infoLog(::testing::Matcher<const std::string&> text);
LogExpectation warnLog(::testing::Matcher<const std::string&> text);
LogExpectation errorLog(::testing::Matcher<const std::string&> text);

std::ostream& operator<<(std::ostream& stream, const LogEntry& entry);
std::ostream& operator<<(std::ostream& stream, const LogExpectation& expected);

/// Everything that the library's logger was given since the test began, at every level. Nothing of
/// it is printed unless the test fails. Any thread.
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
    std::size_t count(log4cplus::LogLevel level) const;

    /// @return success if all were logged in this order, whatever else stood between them
    ::testing::AssertionResult containsInOrder(const std::vector<LogExpectation>& expected) const;

    /// @param ignored  messages of other threads, which may come anywhere or not at all
    /// @return success if exactly these were logged, in this order
    ::testing::AssertionResult isExactly(
        const std::vector<LogExpectation>& expected,
        const std::vector<LogExpectation>& ignored = {}) const;

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
    std::size_t countLocked(const LogExpectation& expected) const;

    mutable std::mutex m_mutex;
    mutable std::condition_variable m_added;
    std::vector<LogEntry> m_entries;
    std::optional<std::pair<LogExpectation, std::function<void()>>> m_action;
};

} // namespace vlx::testing
