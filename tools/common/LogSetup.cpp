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
#include "Text.hpp"

namespace vlx::tool
{

namespace
{

constexpr const char* LogPattern = "%D{%H:%M:%S.%q} %-5p [%c] %m";

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

/// Keeps the text of the last ERROR, and prints events between the tool's own messages, never into
/// the line that shows the progress.
class ToolAppender : public log4cplus::Appender
{
public:
    /// @param printed  level from which on events are printed; at INFO, who joins and leaves as well
    explicit ToolAppender(log4cplus::LogLevel printed) : m_printed(printed)
    {
        setLayout(std::make_unique<log4cplus::PatternLayout>(LogPattern));
    }

    ~ToolAppender() override
    {
        destructorImpl();
    }

    void close() override
    {
        closed = true;
    }

    std::string getLastError() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_lastError;
    }

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override
    {
        if (event.getLogLevel() >= log4cplus::ERROR_LOG_LEVEL)
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_lastError = event.getMessage();
        }
        if (event.getLogLevel() < m_printed &&
            (m_printed != log4cplus::INFO_LOG_LEVEL || !tellsJoinOrLeave(event.getMessage())))
            return;
        std::ostringstream line;
        layout->formatAndAppend(line, event);
        printLogLine(line.str());
    }

private:
    const log4cplus::LogLevel m_printed;
    mutable std::mutex m_mutex;
    std::string m_lastError; // guarded by m_mutex
};

ToolAppender* toolAppender = nullptr; // owned by the root logger; set before any thread

void readConfiguration(const std::string& path)
{
    if (::access(path.c_str(), R_OK) != 0)
        throw CommandFailure(
            ExitCode::Failed,
            "cannot read " + quote(path) + ": " + miscUtils::strerror_r_safe(errno));
    log4cplus::PropertyConfigurator::doConfigure(path);
}

} // unnamed namespace

void configureLogging(int verbosity, const std::string& configFile)
{
    constexpr log4cplus::LogLevel Levels[] = {
        log4cplus::OFF_LOG_LEVEL, log4cplus::INFO_LOG_LEVEL, log4cplus::DEBUG_LOG_LEVEL,
        log4cplus::TRACE_LOG_LEVEL};
    const bool isConfigured = !configFile.empty();
    const auto printed = Levels[isConfigured ? 0 : std::clamp(verbosity, 0, 3)];
    log4cplus::Logger root = log4cplus::Logger::getRoot();
    if (isConfigured)
        readConfiguration(configFile);
    else // who joins and who leaves are DEBUG
        root.setLogLevel(
            verbosity == 0 ? log4cplus::ERROR_LOG_LEVEL
                           : std::min(printed, log4cplus::DEBUG_LOG_LEVEL));
    toolAppender = new ToolAppender(printed);
    root.addAppender(log4cplus::SharedAppenderPtr(toolAppender));
}

std::string quoteLastLibraryError()
{
    const std::string text = toolAppender != nullptr ? toolAppender->getLastError() : std::string();
    return text.empty() ? text : " (" + text + ")";
}

} // namespace vlx::tool
