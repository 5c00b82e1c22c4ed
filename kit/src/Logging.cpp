#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include <log4cplus/appender.h>
#include <log4cplus/config.hxx>
#include <log4cplus/logger.h>
#include <log4cplus/spi/loggingevent.h>
#include <unistd.h>

#include <vlxkit/Logging.hpp>

#include "LibraryError.hpp"

namespace vlx::kit
{

namespace
{

struct Level
{
    log4cplus::LogLevel value;
    const char* name;
};

// In the order of LogLevel.
constexpr std::array<Level, 5> Levels = {
    Level{log4cplus::ERROR_LOG_LEVEL, "ERROR"}, Level{log4cplus::WARN_LOG_LEVEL, "WARN"},
    Level{log4cplus::INFO_LOG_LEVEL, "INFO"}, Level{log4cplus::DEBUG_LOG_LEVEL, "DEBUG"},
    Level{log4cplus::TRACE_LOG_LEVEL, "TRACE"}};

const Level& look(LogLevel level)
{
    return Levels[static_cast<std::size_t>(level)];
}

/// @return the most severe level that the value reaches
LogLevel toLogLevel(log4cplus::LogLevel value)
{
    std::size_t index = 0;
    while (index + 1 < Levels.size() && value < Levels[index].value)
        ++index;
    return static_cast<LogLevel>(index);
}

log4cplus::Logger getLogger()
{
    return log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("Vellox"));
}

/// @return whether the program has an appender for the libraries' log
bool hasAppender()
{
    const auto appenders = getLogger().getAllAppenders();
    return !log4cplus::Logger::getRoot().getAllAppenders().empty() ||
           std::any_of(
               appenders.begin(), appenders.end(),
               [](const log4cplus::SharedAppenderPtr& appender)
               { return appender->getName() != LOG4CPLUS_C_STR_TO_TSTRING(LibraryError::Name); });
}

/// Passes lines to a function.
class ForwardingAppender : public log4cplus::Appender
{
public:
    ForwardingAppender(LogLevel level, std::function<void(const LogLine&)> onLine)
        : m_level(level), m_onLine(std::move(onLine))
    {
        if (!m_onLine)
            setName(LOG4CPLUS_C_STR_TO_TSTRING(LibraryError::Name)); // receives nothing
    }

    ~ForwardingAppender() override
    {
        destructorImpl();
    }

    LogLevel getLevel() const
    {
        return m_level;
    }

    void setLevel(LogLevel level)
    {
        m_level = level;
    }

    /// Waits for a call in progress, then drops the function.
    void close() override
    {
        const std::lock_guard<log4cplus::thread::Mutex> lock(access_mutex);
        closed = true;
        m_onLine = nullptr;
    }

protected:
    // With access_mutex held.
    void append(const log4cplus::spi::InternalLoggingEvent& event) override
    {
        const LogLevel level = toLogLevel(event.getLogLevel());
        if (m_onLine && level <= m_level)
            m_onLine(
                {level, event.getLoggerName(), event.getMessage(), event.getFile(),
                 event.getFunction(), event.getLine()});
    }

private:
    std::atomic<LogLevel> m_level;
    std::function<void(const LogLine&)> m_onLine;
};

const pid_t LoadedBy = ::getpid();

std::mutex mutex;
// Guarded by mutex.
std::vector<const ForwardingAppender*> listeners;
log4cplus::LogLevel formerLevel = log4cplus::NOT_SET_LOG_LEVEL; // set by the program
std::optional<log4cplus::LogLevel> configuredLevel;             // if the program has appenders
std::optional<log4cplus::LogLevel> ourLevel;                    // last set for listeners

/// @pre mutex is held
void adjustLevel()
{
    log4cplus::Logger logger = getLogger();
    if (logger.getLogLevel() != ourLevel) // set by the program
    {
        formerLevel = logger.getLogLevel();
        configuredLevel.reset();
        if (hasAppender())
            configuredLevel = logger.getChainedLogLevel();
    }
    log4cplus::LogLevel level = configuredLevel.value_or(log4cplus::OFF_LOG_LEVEL);
    for (const ForwardingAppender* listener : listeners)
        level = std::min(level, look(listener->getLevel()).value);
    ourLevel.reset();
    if (!listeners.empty())
        ourLevel = level;
    logger.setLogLevel(ourLevel.value_or(formerLevel));
}

std::mutex printerMutex;
// Guarded by printerMutex. All that live share one listener, so that no line appears twice.
int numPrinters = 0;
LogLevel printedLevel = LogLevel::Warning;
std::unique_ptr<LogListener> printer;

} // unnamed namespace

std::string toText(const LogLine& line)
{
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto milliseconds =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() %
        1000;
    std::tm time{};
    ::localtime_r(&seconds, &time);
    std::array<char, 64> prefix{};
    std::snprintf(
        prefix.data(), prefix.size(), "%02d:%02d:%02d.%03d %-5s [", time.tm_hour, time.tm_min,
        time.tm_sec, static_cast<int>(milliseconds), look(line.level).name);
    return prefix.data() + line.logger + "] " + line.text;
}

bool isLogReceived()
{
    return hasAppender();
}

void endLogThreads()
{
    if (::getpid() != LoadedBy) // the threads exist only in the parent
        return;
    const std::lock_guard<std::mutex> lock(mutex);
    auto loggers = log4cplus::Logger::getCurrentLoggers();
    const bool isUsed = !log4cplus::Logger::getRoot().getAllAppenders().empty() ||
                        std::any_of(
                            loggers.begin(), loggers.end(),
                            [](log4cplus::Logger& logger)
                            {
                                const log4cplus::tstring name =
                                    logger.getName() + LOG4CPLUS_TEXT('.');
                                return name.compare(0, 7, LOG4CPLUS_TEXT("Vellox.")) != 0 ||
                                       !logger.getAllAppenders().empty();
                            });
    if (!isUsed)
        log4cplus::deinitialize();
}

class LogListener::Impl
{
public:
    Impl(LogLevel level, std::function<void(const LogLine&)> onLine)
        : m_appender(new ForwardingAppender(level, std::move(onLine))), m_holder(m_appender)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        log4cplus::Logger logger = getLogger();
        listeners.push_back(m_appender);
        adjustLevel();
        logger.addAppender(m_holder);
    }

    ~Impl()
    {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            getLogger().removeAppender(m_holder);
            std::erase(listeners, m_appender);
            adjustLevel();
        }
        m_appender->close();
    }

    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    void setLevel(LogLevel level)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        m_appender->setLevel(level);
        adjustLevel();
    }

private:
    ForwardingAppender* const m_appender;
    log4cplus::SharedAppenderPtr m_holder;
};

LogListener::LogListener(LogLevel level, std::function<void(const LogLine&)> onLine)
    : m_impl(std::make_unique<Impl>(level, std::move(onLine)))
{
}

LogListener::~LogListener() = default;

void LogListener::setLevel(LogLevel level)
{
    m_impl->setLevel(level);
}

Logging::Logging(LogLevel level)
{
    const std::lock_guard<std::mutex> lock(printerMutex);
    m_formerLevel = std::exchange(printedLevel, level);
    if (numPrinters++ > 0)
    {
        printer->setLevel(level);
        return;
    }
    printer = std::make_unique<LogListener>(
        level, [](const LogLine& line) { std::fputs((toText(line) + "\n").c_str(), stderr); });
}

Logging::~Logging()
{
    const std::lock_guard<std::mutex> lock(printerMutex);
    printedLevel = m_formerLevel;
    if (--numPrinters == 0)
        printer.reset();
    else
        printer->setLevel(printedLevel);
}

} // namespace vlx::kit
