#include "LogSetup.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <string>
#include <string_view>

#include <log4cplus/configurator.h>
#include <unistd.h>

#include <miscUtils/MiscUtils.hpp>

#include "ExitCodes.hpp"
#include "Messages.hpp"
#include "Text.hpp"

namespace vlx::tool
{

namespace
{

// What a single -v shows of the library's DEBUG: connections that begin and end, at either end.
constexpr std::array<std::string_view, 5> ConnectionTexts = {
    "New client connection", "Client connection with FD", "Sidechannel connected",
    "Nanomsg channel to VLX sender established", "Connection gone because"};

bool isAboutConnection(std::string_view message)
{
    return std::any_of(
        ConnectionTexts.begin(), ConnectionTexts.end(),
        [&](std::string_view text) { return message.starts_with(text); });
}

void readConfiguration(const std::string& path)
{
    if (::access(path.c_str(), R_OK) != 0)
        throw CommandFailure(
            ExitCode::Failed,
            "cannot read " + quote(path) + ": " + miscUtils::strerror_r_safe(errno));
    log4cplus::PropertyConfigurator::doConfigure(path);
}

} // unnamed namespace

std::unique_ptr<kit::LogListener> configureLogging(int verbosity, const std::string& configFile)
{
    if (!configFile.empty())
    {
        readConfiguration(configFile);
        return nullptr;
    }
    // Not printed: log4cplus complains if nothing receives the log. At INFO, connections that begin
    // and end, which are DEBUG, are printed as well.
    const auto level = verbosity == 0   ? kit::LogLevel::Error
                       : verbosity <= 2 ? kit::LogLevel::Debug
                                        : kit::LogLevel::Trace;
    const auto print = [verbosity](const kit::LogLine& line)
    {
        if (verbosity >= 2 ||
            (verbosity == 1 && (line.level <= kit::LogLevel::Info || isAboutConnection(line.text))))
            printLogLine(toText(line));
    };
    return std::make_unique<kit::LogListener>(level, print);
}

} // namespace vlx::tool
