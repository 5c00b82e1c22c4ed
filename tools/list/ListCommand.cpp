#include <algorithm>
#include <array>
#include <cstdio>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <vlxkit/Discovery.hpp>
#include <vlxkit/Users.hpp>

#include "Commands.hpp"
#include "common/CommonOptions.hpp"
#include "common/ExitCodes.hpp"
#include "common/Messages.hpp"
#include "common/ReportFile.hpp"
#include "common/SenderReport.hpp"
#include "common/StopSignal.hpp"
#include "common/Text.hpp"

namespace vlx::tool
{

namespace
{

struct ListOptions
{
    bool json = false;
    bool clean = false;
};

constexpr std::size_t NumColumns = 8;
using Row = std::array<std::string, NumColumns>;

constexpr std::array<bool, NumColumns> RightAligned = {false, true, false, false,
                                                       false, true, false, false};

Row makeRow(const FoundSender& found)
{
    const auto& info = found.probe.initialInfo;
    return {
        toPrintable(found.entry.name),
        std::to_string(found.entry.process),
        toPrintable(found.entry.command),
        toPrintable(kit::getUserName(found.entry.user)),
        info ? toString(info->nanomsgProtocol) : "",
        std::to_string(found.entry.receivers),
        describeFormat(found.probe),
        describeClock(found.probe)};
}

void printTable(const std::vector<FoundSender>& senders)
{
    std::vector<Row> rows = {
        {"NAME", "PID", "PROGRAM", "USER", "PROTOCOL", "RECEIVERS", "FORMAT", "CLOCK"}};
    std::transform(senders.begin(), senders.end(), std::back_inserter(rows), makeRow);

    std::array<std::size_t, NumColumns> widths{};
    for (const Row& row : rows)
    {
        for (std::size_t i = 0; i < NumColumns; ++i)
            widths[i] = std::max(widths[i], getDisplayWidth(row[i]));
    }
    for (const Row& row : rows)
    {
        std::string line;
        for (std::size_t i = 0; i < NumColumns; ++i)
        {
            const std::string padding(widths[i] - getDisplayWidth(row[i]), ' ');
            line += (i == 0 ? "" : "  ") + (RightAligned[i] ? padding + row[i] : row[i] + padding);
        }
        line.erase(line.find_last_not_of(' ') + 1);
        std::puts(line.c_str());
    }
}

/// Names each reason for which directories are kept.
void reportKept(const kit::CleanupResult& result)
{
    if (!result.notice.empty())
        printNotice(result.notice);
    if (result.numRecent > 0)
        printNotice("kept: " + std::to_string(result.numRecent) + " younger than a minute");
    if (result.numUncertain > 0)
        printNotice(
            "kept: " + std::to_string(result.numUncertain) +
            " whose user has a sender that does not answer, or that only that user and root can "
            "see");
    if (result.entries.empty())
        printNotice("nothing removed");
}

ExitCode clean(const StopSignal& stop)
{
    bool done = true;
    const kit::CleanupResult result = kit::removeDeadEntries({}, stop.getFD());
    if (!stop.isRequested())
        reportKept(result);
    for (const kit::DeadEntry& entry : result.entries)
    {
        if (entry.problem.empty())
            std::puts(("removed " + toPrintable(entry.path)).c_str());
        else
            printError(toPrintable(entry.path) + ": " + entry.problem);
        done = done && entry.problem.empty();
    }
    return done ? ExitCode::Done : ExitCode::Failed;
}

void reportHidden(const std::vector<pid_t>& processes)
{
    if (processes.empty())
        return;
    std::string list;
    for (const pid_t process : processes)
        list += (list.empty() ? "" : ", ") + std::to_string(process);
    printNotice("other users' senders, whose names only they and root can see: process " + list);
}

CLI::App* addCommand(CLI::App& program, ListOptions& options)
{
    CLI::App* const command = program.add_subcommand(
        "list", "List the senders on this machine, or clean up after dead ones");
    command->add_flag("--json", options.json, "Print an array of JSON objects");
    command->add_flag(
        "--clean", options.clean,
        "Remove directories that dead senders left behind, and print each");
    return command;
}

ExitCode runList(const ListOptions& options, StopSignal& stop)
{
    if (options.clean)
        return clean(stop);

    const kit::SenderList list = kit::listSenders();
    std::vector<std::string> names;
    for (const kit::SenderEntry& entry : list.senders)
        names.push_back(entry.name);
    const auto probes = kit::probeSenders(names, AnswerTimeout, stop.getFD());
    if (stop.isRequested())
        return ExitCode::Done;
    std::vector<FoundSender> senders;
    for (std::size_t i = 0; i < probes.size(); ++i)
        senders.push_back({list.senders[i], probes[i]});
    if (options.json)
    {
        nlohmann::ordered_json array = nlohmann::ordered_json::array();
        for (const FoundSender& sender : senders)
            array.push_back(toJson(sender));
        writeJson("-", array);
    }
    else if (!senders.empty())
    {
        printTable(senders);
    }
    else if (list.hidden.empty())
    {
        printNotice("no sender on this machine");
    }
    reportHidden(list.hidden);
    if (!list.notice.empty())
        printNotice(list.notice);
    return ExitCode::Done;
}

} // unnamed namespace

Subcommand makeListCommand()
{
    return makeSubcommand(addCommand, runList);
}

} // namespace vlx::tool
