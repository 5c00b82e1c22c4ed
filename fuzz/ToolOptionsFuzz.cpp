// Command lines of the tool: refused with an explanation, or read into options that keep to what
// the help says. The words of a command line are the lines of the input.

#include <chrono>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <CLI/CLI.hpp>

#include "receive/ReceiveOptions.hpp"
#include "send/SendOptions.hpp"
#include "support/Check.hpp"

namespace
{

using namespace vlx;
using fuzz::check;

constexpr std::size_t MaxNameLength = 107;

/// The tool's commands, made once: that takes longer than reading a command line.
struct Program
{
    CLI::App app{"", "vlx"};
    tool::SendOptions sendOptions;
    tool::ReceiveOptions receiveOptions;
    CLI::App* send = tool::addSendCommand(app, sendOptions);
    CLI::App* receive = tool::addReceiveCommand(app, receiveOptions);

    Program()
    {
        app.set_version_flag("--version", "vlx 0");
        app.require_subcommand(1);
    }
};

/// @return the lines, last one first, as the parser takes them
std::vector<std::string> splitBackwards(const std::string& text)
{
    std::vector<std::string> words;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        words.insert(words.begin(), line);
    return words;
}

void checkName(const std::string& name)
{
    check(!name.empty() && name.size() <= MaxNameLength, "a stream's name is one that can be used");
}

void checkDuration(const std::optional<std::chrono::nanoseconds>& duration)
{
    check(!duration || duration->count() > 0, "a duration is longer than nothing");
}

void checkSend(const tool::SendOptions& options)
{
    checkName(options.name);
    check(audioUtils::isValid(options.format.sampleFormat), "the sample format is a format");
    check(
        options.format.rate >= 1 && options.format.rate <= 2'000'000'000,
        "the rate is in its range");
    check(
        options.format.channels >= 1 && options.format.channels <= 255,
        "the channel count is in its range");
    check(
        !options.toneHz || (*options.toneHz >= 0 && *options.toneHz <= 1e9),
        "the tone's frequency is in its range");
    checkDuration(options.frame);
    checkDuration(options.duration);
    checkDuration(options.timeout);
    check(options.protocol != NanomsgProtocol::Unknown, "the protocol is one that a sender knows");
}

void checkReceive(const tool::ReceiveOptions& options)
{
    checkName(options.name);
    checkDuration(options.duration);
    checkDuration(options.timeout);
    checkDuration(options.stall);
}

} // unnamed namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static Program program;
    program.sendOptions = {};
    program.receiveOptions = {};
    try
    {
        program.app.parse(splitBackwards({reinterpret_cast<const char*>(data), size}));
    }
    catch (const CLI::ParseError& error)
    {
        check(
            error.get_exit_code() == 0 || !std::string_view(error.what()).empty(),
            "a refusal says why");
        return 0;
    }
    check(program.send->parsed() != program.receive->parsed(), "a command line is one command's");
    if (program.send->parsed())
        checkSend(program.sendOptions);
    else
        checkReceive(program.receiveOptions);
    return 0;
}
