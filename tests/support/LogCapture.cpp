#include "support/LogCapture.hpp"

#include <algorithm>
#include <sstream>
#include <utility>

#include <log4cplus/appender.h>
#include <log4cplus/logger.h>
#include <log4cplus/nullappender.h>
#include <log4cplus/spi/loggingevent.h>

#include "support/VlxTest.hpp"

namespace vlx::testing
{

namespace
{

class CapturingAppender : public log4cplus::Appender
{
public:
    ~CapturingAppender() override
    {
        destructorImpl();
    }

    void close() override {}

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override
    {
        LogCapture::get().record({event.getLogLevel(), event.getMessage(), event.getFunction()});
    }
};

std::string describe(const std::vector<LogEntry>& entries)
{
    std::ostringstream text;
    for (const LogEntry& entry : entries)
        text << "\n  " << entry;
    return text.str();
}

} // namespace

bool LogExpectation::matches(const LogEntry& entry) const
{
    return entry.level == level && text.Matches(entry.text);
}

LogExpectation traceLog(::testing::Matcher<const std::string&> text)
{
    return {log4cplus::TRACE_LOG_LEVEL, std::move(text)};
}

LogExpectation debugLog(::testing::Matcher<const std::string&> text)
{
    return {log4cplus::DEBUG_LOG_LEVEL, std::move(text)};
}

LogExpectation infoLog(::testing::Matcher<const std::string&> text)
{
    return {log4cplus::INFO_LOG_LEVEL, std::move(text)};
}

LogExpectation warnLog(::testing::Matcher<const std::string&> text)
{
    return {log4cplus::WARN_LOG_LEVEL, std::move(text)};
}

LogExpectation errorLog(::testing::Matcher<const std::string&> text)
{
    return {log4cplus::ERROR_LOG_LEVEL, std::move(text)};
}

std::ostream& operator<<(std::ostream& stream, const LogEntry& entry)
{
    return stream << log4cplus::getLogLevelManager().toString(entry.level) << ' ' << entry.text
                  << "   [" << entry.function << ']';
}

std::ostream& operator<<(std::ostream& stream, const LogExpectation& expected)
{
    stream << log4cplus::getLogLevelManager().toString(expected.level) << " that ";
    expected.text.DescribeTo(&stream);
    return stream;
}

void LogCapture::install()
{
    log4cplus::Logger::getRoot().addAppender(
        log4cplus::SharedAppenderPtr(new log4cplus::NullAppender));

    log4cplus::Logger logger = log4cplus::Logger::getInstance("Vellox");
    logger.removeAllAppenders();
    logger.addAppender(log4cplus::SharedAppenderPtr(new CapturingAppender));
    logger.setAdditivity(false);
    logger.setLogLevel(log4cplus::TRACE_LOG_LEVEL);
}

LogCapture& LogCapture::get()
{
    // Never destroyed: threads of a failed test may still log while the program ends.
    static LogCapture& capture = *new LogCapture;
    return capture;
}

void LogCapture::clear()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_entries.clear();
    m_action.reset();
}

std::vector<LogEntry> LogCapture::getEntries() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_entries;
}

bool LogCapture::contains(const LogExpectation& expected) const
{
    return count(expected) > 0;
}

std::size_t LogCapture::count(const LogExpectation& expected) const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return countLocked(expected);
}

std::size_t LogCapture::count(log4cplus::LogLevel level) const
{
    return count({level, ::testing::_});
}

std::size_t LogCapture::countLocked(const LogExpectation& expected) const
{
    return static_cast<std::size_t>(std::count_if(
        m_entries.begin(), m_entries.end(),
        [&expected](const LogEntry& entry) { return expected.matches(entry); }));
}

::testing::AssertionResult
LogCapture::containsInOrder(const std::vector<LogExpectation>& expected) const
{
    const std::vector<LogEntry> entries = getEntries();
    auto position = entries.begin();
    for (const LogExpectation& expectation : expected)
    {
        position = std::find_if(
            position, entries.end(),
            [&expectation](const LogEntry& entry) { return expectation.matches(entry); });
        if (position == entries.end())
        {
            return ::testing::AssertionFailure()
                   << "not logged, or not in this order: " << expectation
                   << "\nlogged:" << describe(entries);
        }
        ++position;
    }
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult LogCapture::isExactly(
    const std::vector<LogExpectation>& expected,
    const std::vector<LogExpectation>& ignored) const
{
    std::vector<LogEntry> entries = getEntries();
    std::erase_if(
        entries,
        [&ignored](const LogEntry& entry)
        {
            return std::any_of(
                ignored.begin(), ignored.end(),
                [&entry](const LogExpectation& one) { return one.matches(entry); });
        });
    for (std::size_t i = 0; i < std::min(entries.size(), expected.size()); ++i)
    {
        if (!expected[i].matches(entries[i]))
        {
            return ::testing::AssertionFailure() << "message " << i << " should be " << expected[i]
                                                 << "\nlogged:" << describe(entries);
        }
    }
    if (entries.size() != expected.size())
    {
        return ::testing::AssertionFailure()
               << expected.size() << " message(s) expected, logged:" << describe(entries);
    }
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult
LogCapture::waitFor(const LogExpectation& expected, std::size_t times) const
{
    std::unique_lock<std::mutex> lock(m_mutex);
    const bool came =
        m_added.wait_for(lock, DefaultDeadline, [&] { return countLocked(expected) >= times; });
    if (came)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "not logged " << times << " time(s): " << expected
                                         << "\nlogged:" << describe(m_entries);
}

void LogCapture::record(LogEntry entry)
{
    std::function<void()> action;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_action && m_action->first.matches(entry))
        {
            action = std::move(m_action->second);
            m_action.reset();
        }
        m_entries.push_back(std::move(entry));
        m_added.notify_all();
    }
    if (action)
        action();
}

void LogCapture::onNext(const LogExpectation& expected, std::function<void()> action)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_action.emplace(expected, std::move(action));
}

} // namespace vlx::testing
