#include "Completions.hpp"

#include <iostream>

#include <CLI/CLI.hpp>

#include <audioUtils/PcmFormat.hpp>

namespace vlx::tool
{

namespace
{

void offer(const std::string& word, const std::string& help = {})
{
    std::cout << word << '\t' << help.substr(0, help.find_first_of(":;[,")) << '\n';
}

/// Offers the words that an option's value is one of.
///
/// @return whether a file is wanted instead
bool offerValues(const std::string& typeName)
{
    for (std::size_t i = 0; typeName == "FORMAT" && i < audioUtils::NumPcmFormats; ++i)
        offer(std::string(audioUtils::toString(static_cast<audioUtils::PcmFormat>(i))));
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
        return offerValues(option->get_type_name());

    const auto subcommands = command->get_subcommands(std::function<bool(const CLI::App*)>());
    if (words.empty() || !words.back().starts_with('-'))
    {
        for (const CLI::App* const each : subcommands)
            offer(each->get_name(), each->get_description());
        return subcommands.empty();
    }
    for (const CLI::Option* const each : command->get_options())
    {
        for (const std::string& name : each->get_lnames())
            offer("--" + name, each->get_description());
    }
    return false;
}

} // namespace vlx::tool
