#include "support/LogCapture.hpp"

#include <algorithm>
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
        LogCapture::get().record({event.getLogLevel(), event.getMessage()});
    }
};

std::size_t countIn(const std::vector<LogEntry>& entries, const LogExpectation& expected)
{
    return static_cast<std::size_t>(std::count_if(
        entries.begin(), entries.end(),
        [&expected](const LogEntry& entry) { return expected.Matches(entry); }));
}

} // namespace

LogExpectation LogOfLevel::operator()(const ::testing::Matcher<const std::string&>& text) const
{
    return ::testing::AllOf(
        ::testing::Field(&LogEntry::level, level), ::testing::Field(&LogEntry::text, text));
}

std::ostream& operator<<(std::ostream& stream, const LogEntry& entry)
{
    return stream << log4cplus::getLogLevelManager().toString(entry.level) << ' ' << entry.text;
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
    return countIn(getEntries(), expected);
}

::testing::AssertionResult
LogCapture::containsInOrder(const std::vector<LogExpectation>& expected) const
{
    auto next = expected.begin();
    for (const LogEntry& entry : getEntries())
    {
        if (next != expected.end() && next->Matches(entry))
            ++next;
    }
    if (next == expected.end())
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "not logged, or not in this order: " << *next;
}

::testing::AssertionResult LogCapture::isExactly(const std::vector<LogExpectation>& expected) const
{
    const auto matcher = ::testing::ElementsAreArray(expected);
    ::testing::StringMatchResultListener explanation;
    if (::testing::ExplainMatchResult(matcher, getEntries(), &explanation))
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "logged something else: " << explanation.str();
}

::testing::AssertionResult
LogCapture::waitFor(const LogExpectation& expected, std::size_t times) const
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_added.wait_for(
            lock, DefaultDeadline, [&] { return countIn(m_entries, expected) >= times; }))
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "not logged " << times << " time(s): " << expected;
}

void LogCapture::record(LogEntry entry)
{
    std::function<void()> action;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_action && m_action->first.Matches(entry))
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
