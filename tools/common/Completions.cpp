#include "Completions.hpp"

#include <algorithm>
#include <cctype>
#include <iostream>
#include <string_view>

#include <CLI/CLI.hpp>

#include <audioUtils/PcmFormat.hpp>
#include <vlxkit/Discovery.hpp>

#include "Text.hpp"
#include "audio/AudioOutput.hpp"

namespace vlx::tool
{

namespace
{

void offer(const std::string& word, const std::string& help = {})
{
    std::cout << word << '\t' << help.substr(0, help.find_first_of(":;[,")) << '\n';
}

/// @return whether shells take a name as it is: theirs are visible characters without a meaning
bool isPlainName(const std::string& name)
{
    const auto isPlain = [](char each)
    {
        return static_cast<unsigned char>(each) >= 0x80 || std::isalnum(each) != 0 ||
               std::string_view("._-+,/%").find(each) != std::string_view::npos;
    };
    return !name.starts_with('-') && std::all_of(name.begin(), name.end(), isPlain) &&
           toPrintable(name) == name;
}

/// Offers the streams that are sent now and have plain names.
void offerStreams()
{
    for (const kit::SenderEntry& sender : kit::listSenders().senders)
    {
        if (isPlainName(sender.name))
            offer(sender.name, "stream of " + toPrintable(sender.command));
    }
}

/// Offers the words that an option's value is one of.
///
/// @return whether a file is wanted instead
bool offerValues(const std::string& typeName)
{
    for (std::size_t i = 0; typeName == "FORMAT" && i < audioUtils::NumPcmFormats; ++i)
        offer(std::string(audioUtils::toString(static_cast<audioUtils::PcmFormat>(i))));
    for (const std::string& word : CLI::detail::split(listOutputTypes(), ','))
    {
        if (typeName == "TYPE")
            offer(CLI::detail::trim_copy(word));
    }
    if (typeName.find('|') != std::string::npos)
    {
        for (const std::string& word : CLI::detail::split(typeName, '|'))
            offer(word);
    }
    return typeName == "FILE";
}

} // unnamed namespace

bool printCompletions(const CLI::App& program, const std::vector<std::string>& words)
{
    const CLI::App* command = &program;
    const CLI::Option* option = nullptr; // in front of the last word
    for (std::size_t i = 0; i + 1 < words.size(); ++i)
    {
        const auto subcommands = command->get_subcommands([&](const CLI::App* each)
                                                          { return each->get_name() == words[i]; });
        command = subcommands.empty() ? command : subcommands.front();
        option = words[i].starts_with('-') ? command->get_option_no_throw(words[i]) : nullptr;
    }
    if (option != nullptr && option->get_items_expected_max() != 0)
    {
        if (option->check_name("--socket") && command->get_name() != "send")
            offerStreams();
        return offerValues(option->get_type_name());
    }

    const auto subcommands = command->get_subcommands(std::function<bool(const CLI::App*)>());
    if (words.empty() || !words.back().starts_with('-'))
    {
        for (const CLI::App* const each : subcommands)
            offer(each->get_name(), each->get_description());
        if (command->get_option_no_throw("NAME") == nullptr)
            return subcommands.empty();
        offerStreams();
        return false;
    }
    for (const CLI::Option* const each : command->get_options())
    {
        for (const std::string& name : each->get_lnames())
            offer("--" + name, each->get_description());
    }
    return false;
}

} // namespace vlx::tool
