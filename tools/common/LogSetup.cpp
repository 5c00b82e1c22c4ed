#include "LogSetup.hpp"

#include <memory>
#include <mutex>

#include <log4cplus/appender.h>
#include <log4cplus/consoleappender.h>
#include <log4cplus/layout.h>
#include <log4cplus/logger.h>
#include <log4cplus/spi/loggingevent.h>

namespace vlx::tool
{

namespace
{

constexpr const char* LogPattern = "%D{%H:%M:%S.%q} %-5p [%c] %m%n";

/// Keeps the text of the last event that reached it.
class LastEventAppender : public log4cplus::Appender
{
public:
    ~LastEventAppender() override
    {
        destructorImpl();
    }

    void close() override
    {
        closed = true;
    }

    std::string getText() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_text;
    }

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_text = event.getMessage();
    }

private:
    mutable std::mutex m_mutex;
    std::string m_text; // guarded by m_mutex
};

LastEventAppender* lastErrorAppender = nullptr; // owned by the root logger; set before any thread

log4cplus::LogLevel toLogLevel(int verbosity)
{
    switch (verbosity)
    {
    case 0:
        return log4cplus::ERROR_LOG_LEVEL;
    case 1:
        return log4cplus::INFO_LOG_LEVEL;
    case 2:
        return log4cplus::DEBUG_LOG_LEVEL;
    default:
        return log4cplus::TRACE_LOG_LEVEL;
    }
}

void addConsole(log4cplus::Logger& root)
{
    constexpr bool ToStandardError = true;
    constexpr bool FlushAlways = true;
    log4cplus::SharedAppenderPtr console(
        new log4cplus::ConsoleAppender(ToStandardError, FlushAlways));
    console->setLayout(std::make_unique<log4cplus::PatternLayout>(LogPattern));
    root.addAppender(console);
}

} // unnamed namespace

void configureLogging(int verbosity)
{
    log4cplus::Logger root = log4cplus::Logger::getRoot();
    root.setLogLevel(toLogLevel(verbosity));

    lastErrorAppender = new LastEventAppender;
    lastErrorAppender->setThreshold(log4cplus::ERROR_LOG_LEVEL);
    root.addAppender(log4cplus::SharedAppenderPtr(lastErrorAppender));
    if (verbosity > 0)
        addConsole(root);
}

std::string getLastLibraryError()
{
    return lastErrorAppender != nullptr ? lastErrorAppender->getText() : std::string();
}

std::string quoteLastLibraryError()
{
    const std::string text = getLastLibraryError();
    return text.empty() ? text : " (" + text + ")";
}

} // namespace vlx::tool
