#include "HelpFormatter.hpp"

#include <algorithm>
#include <sstream>

namespace vlx::tool
{

namespace
{

constexpr std::size_t Width = 80;
constexpr std::size_t HelpColumn = 28;

/// @param first  what stands before the text, on a line of its own if it is too long
std::string wrap(const std::string& text, std::size_t column = 0, const std::string& first = {})
{
    std::string result = first;
    std::size_t used = first.size();
    if (used + 2 > column && column > 0)
    {
        result += '\n';
        used = 0;
    }
    result.append(column - std::min(used, column), ' ');
    used = column;

    std::istringstream words(text);
    std::string word;
    while (words >> word)
    {
        if (used > column && used + 1 + word.size() > Width)
        {
            result += '\n' + std::string(column, ' ');
            used = column;
        }
        const bool beginsLine = used == column;
        result += (beginsLine ? "" : " ") + word;
        used += word.size() + (beginsLine ? 0 : 1);
    }
    return result + '\n';
}

} // unnamed namespace

std::string HelpFormatter::make_description(const CLI::App* app) const
{
    return wrap(app->get_description());
}

std::string HelpFormatter::make_footer(const CLI::App* app) const
{
    return app->get_footer().empty() ? std::string() : wrap(app->get_footer());
}

std::string HelpFormatter::make_subcommand(const CLI::App* command) const
{
    return wrap(command->get_description(), HelpColumn, "  " + command->get_name());
}

std::string HelpFormatter::make_option(const CLI::Option* option, bool isPositional) const
{
    std::string name = option->get_name(isPositional, !isPositional);
    name.resize(std::min(name.find('{'), name.size())); // the value of a flag that is given none
    const std::size_t comma = name.find(',');
    if (comma != std::string::npos)
        name.insert(comma + 1, " ");
    else if (!isPositional)
        name.insert(0, "    "); // where others have a letter
    if (!option->get_option_text().empty())
        name += option->get_option_text();
    else if (option->get_type_size() != 0 && !option->get_type_name().empty())
        name += ' ' + option->get_type_name();
    return wrap(option->get_description(), HelpColumn, "  " + name);
}

} // namespace vlx::tool
