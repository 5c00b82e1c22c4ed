#include "LogSetup.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <mutex>
#include <sstream>
#include <string_view>

#include <log4cplus/appender.h>
#include <log4cplus/configurator.h>
#include <log4cplus/layout.h>
#include <log4cplus/logger.h>
#include <log4cplus/spi/loggingevent.h>
#include <unistd.h>

#include <miscUtils/MiscUtils.hpp>

#include "ExitCodes.hpp"
#include "Messages.hpp"

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

// What a single -v shows of the library's DEBUG: who joins and who leaves, at either end.
constexpr std::array<std::string_view, 5> JoinAndLeaveTexts = {
    "New client connection", "Client connection with FD", "Sidechannel connected",
    "Nanomsg channel to VLX sender established", "Connection gone because"};

bool tellsJoinOrLeave(std::string_view message)
{
    return std::any_of(
        JoinAndLeaveTexts.begin(), JoinAndLeaveTexts.end(),
        [&](std::string_view text) { return message.starts_with(text); });
}

/// Prints events between the tool's own messages, never into the line that shows the progress.
class MessageAppender : public log4cplus::Appender
{
public:
    explicit MessageAppender(bool withDebug) : m_withDebug(withDebug)
    {
        setLayout(std::make_unique<log4cplus::PatternLayout>(LogPattern));
    }

    ~MessageAppender() override
    {
        destructorImpl();
    }

    void close() override
    {
        closed = true;
    }

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override
    {
        if (!m_withDebug && event.getLogLevel() < log4cplus::INFO_LOG_LEVEL &&
            !tellsJoinOrLeave(event.getMessage()))
            return;
        std::ostringstream line;
        layout->formatAndAppend(line, event);
        printLogLine(line.str());
    }

private:
    const bool m_withDebug;
};

LastEventAppender* lastErrorAppender = nullptr; // owned by the root logger; set before any thread

log4cplus::LogLevel toLogLevel(int verbosity)
{
    switch (verbosity)
    {
    case 0:
        return log4cplus::ERROR_LOG_LEVEL;
    case 1:
    case 2:
        return log4cplus::DEBUG_LOG_LEVEL;
    default:
        return log4cplus::TRACE_LOG_LEVEL;
    }
}

void readConfiguration(const std::string& path)
{
    if (::access(path.c_str(), R_OK) != 0)
        throw CommandFailure(
            ExitCode::Failed, "cannot read \"" + path + "\": " + miscUtils::strerror_r_safe(errno));
    log4cplus::PropertyConfigurator::doConfigure(path);
}

} // unnamed namespace

void configureLogging(int verbosity, const std::string& configFile)
{
    log4cplus::Logger root = log4cplus::Logger::getRoot();
    if (configFile.empty())
        root.setLogLevel(toLogLevel(verbosity));
    else
        readConfiguration(configFile);

    lastErrorAppender = new LastEventAppender;
    lastErrorAppender->setThreshold(log4cplus::ERROR_LOG_LEVEL);
    root.addAppender(log4cplus::SharedAppenderPtr(lastErrorAppender));
    if (verbosity > 0 && configFile.empty())
        root.addAppender(log4cplus::SharedAppenderPtr(new MessageAppender(verbosity > 1)));
}

std::string quoteLastLibraryError()
{
    const std::string text =
        lastErrorAppender != nullptr ? lastErrorAppender->getText() : std::string();
    return text.empty() ? text : " (" + text + ")";
}

} // namespace vlx::tool
