#include <mutex>

#include <log4cplus/consoleappender.h>
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

std::mutex mutex;
// Guarded by mutex. All that live share one appender, which makes no line appear twice.
int numLive = 0;
log4cplus::SharedAppenderPtr console;

log4cplus::Logger getLogger()
{
    return log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("Vellox"));
}

} // unnamed namespace

class Logging::Impl
{
public:
    explicit Impl(LogLevel level)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        log4cplus::Logger logger = getLogger();
        m_formerLevel = logger.getLogLevel();
        logger.setLogLevel(toLog4cplusLevel(level));
        if (numLive++ > 0)
            return;
        constexpr bool ToStandardError = true;
        constexpr bool FlushAlways = true;
        console = new log4cplus::ConsoleAppender(ToStandardError, FlushAlways);
        console->setLayout(std::make_unique<log4cplus::PatternLayout>(LogPattern));
        logger.addAppender(console);
    }

    ~Impl()
    {
        const std::lock_guard<std::mutex> lock(mutex);
        log4cplus::Logger logger = getLogger();
        logger.setLogLevel(m_formerLevel);
        if (--numLive > 0)
            return;
        logger.removeAppender(console);
        console = nullptr;
    }

    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

private:
    log4cplus::LogLevel m_formerLevel = log4cplus::NOT_SET_LOG_LEVEL;
};

Logging::Logging(LogLevel level) : m_impl(std::make_unique<Impl>(level)) {}

Logging::~Logging() = default;

} // namespace vlx::kit
