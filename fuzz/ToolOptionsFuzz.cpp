// Command lines of the tool: refused with an explanation, or read into options that keep to what
// the help says. The words of a command line are the lines of the input.

#include <sstream>
#include <string>

#include <CLI/CLI.hpp>

#include "receive/ReceiveOptions.hpp"
#include "send/SendOptions.hpp"
#include "support/Fuzz.hpp"

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

} // unnamed namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static Program program;
    program.sendOptions = {};
    program.receiveOptions = {};
    std::vector<std::string> words; // last one first, as the parser takes them
    std::istringstream lines(std::string(reinterpret_cast<const char*>(data), size));
    for (std::string line; std::getline(lines, line);)
        words.insert(words.begin(), line);
    try
    {
        program.app.parse(words);
    }
    catch (const CLI::ParseError& error)
    {
        check(error.get_exit_code() == 0 || *error.what() != 0, "a refusal says why");
        return 0;
    }
    const bool isSend = program.send->parsed();
    check(isSend != program.receive->parsed(), "a command line is one command's");

    const tool::SendOptions& send = program.sendOptions;
    const tool::ReceiveOptions& receive = program.receiveOptions;
    const std::string& name = isSend ? send.name : receive.name;
    check(!name.empty() && name.size() <= MaxNameLength, "a stream's name can be used");
    for (const auto& duration :
         {send.frame, send.duration, send.timeout, receive.duration, receive.timeout,
          receive.stall})
        check(!duration || duration->count() > 0, "a duration is longer than nothing");
    const kit::StreamFormat& format = send.input.format;
    check(audioUtils::isValid(format.sampleFormat), "the sample format is a format");
    check(format.rate >= 1 && format.rate <= 2'000'000'000, "the rate is in its range");
    check(format.channels >= 1 && format.channels <= 255, "the channel count is in its range");
    check(!send.toneHz || (*send.toneHz >= 0 && *send.toneHz <= 1e9), "the tone is in its range");
    check(send.protocol != NanomsgProtocol::Unknown, "the protocol is one that a sender knows");
    return 0;
}
