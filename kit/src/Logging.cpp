#include <log4cplus/consoleappender.h>
#include <log4cplus/initializer.h>
#include <log4cplus/layout.h>
#include <log4cplus/logger.h>

#include <vlxkit/Logging.hpp>

namespace vlx::kit
{

namespace
{

constexpr const char* LogPattern = "%D{%H:%M:%S.%q} %-5p [%c] %m%n";

log4cplus::LogLevel toLog4cplusLevel(LogLevel level)
{
    switch (level)
    {
    case LogLevel::Error:
        return log4cplus::ERROR_LOG_LEVEL;
    case LogLevel::Warning:
        return log4cplus::WARN_LOG_LEVEL;
    case LogLevel::Info:
        return log4cplus::INFO_LOG_LEVEL;
    case LogLevel::Debug:
        return log4cplus::DEBUG_LOG_LEVEL;
    case LogLevel::Trace:
        break;
    }
    return log4cplus::TRACE_LOG_LEVEL;
}

} // unnamed namespace

class Logging::Impl
{
    log4cplus::Initializer m_initializer;
};

Logging::Logging(LogLevel level) : m_impl(std::make_unique<Impl>())
{
    constexpr bool ToStandardError = true;
    constexpr bool FlushAlways = true;
    log4cplus::SharedAppenderPtr console(
        new log4cplus::ConsoleAppender(ToStandardError, FlushAlways));
    console->setLayout(std::make_unique<log4cplus::PatternLayout>(LogPattern));
    log4cplus::Logger root = log4cplus::Logger::getRoot();
    root.setLogLevel(toLog4cplusLevel(level));
    root.addAppender(console);
}

Logging::~Logging() = default;

} // namespace vlx::kit
