#include "Completions.hpp"

#include <algorithm>
#include <vector>

#include <CLI/CLI.hpp>

namespace vlx::tool
{

namespace
{

constexpr const char* FormatWords =
    "s8 u8 s16le s16be s24le s24be s32le s32be f32le f32be f64le f64be";

struct OptionEntry
{
    std::vector<std::string> shortNames; // without "-"
    std::vector<std::string> longNames;
    std::string help; // its first clause
    bool takesValue = false;
    bool takesFile = false;
    std::string words; // that its value is one of; empty: any
};

struct CommandEntry
{
    std::string path; // such as "send", "clock serve"; empty for the program
    std::vector<std::string> subcommands;
    std::vector<OptionEntry> options;
    bool takesFiles = false;
};

std::string shorten(const std::string& help)
{
    std::string text = help.substr(0, help.find_first_of(":;[,"));
    std::erase_if(text, [](char c) { return c == '\'' || c == '"' || c == ']'; });
    return text.substr(0, text.find_last_not_of(' ') + 1);
}

OptionEntry toEntry(const CLI::Option& option)
{
    OptionEntry entry;
    entry.shortNames = option.get_snames();
    entry.longNames = option.get_lnames();
    entry.help = shorten(option.get_description());
    const std::string type = option.get_type_name();
    entry.takesValue = option.get_type_size() != 0;
    entry.takesFile = entry.takesValue && type == "FILE";
    if (type == "FORMAT")
        entry.words = FormatWords;
    else if (type.find('|') != std::string::npos)
        entry.words = CLI::detail::find_and_replace(type, "|", " ");
    return entry;
}

void collect(const CLI::App& app, const std::string& path, std::vector<CommandEntry>& entries)
{
    const auto subcommands = app.get_subcommands(std::function<bool(const CLI::App*)>());
    CommandEntry entry;
    entry.path = path;
    for (const CLI::App* const each : subcommands)
        entry.subcommands.push_back(each->get_name());
    for (const CLI::Option* const option : app.get_options())
    {
        if (option->nonpositional() && !option->get_group().empty())
            entry.options.push_back(toEntry(*option));
        entry.takesFiles = entry.takesFiles || option->get_positional();
    }
    entries.push_back(entry);
    for (const CLI::App* const each : subcommands)
        collect(*each, (path.empty() ? "" : path + " ") + each->get_name(), entries);
}

std::string join(const std::vector<std::string>& names, const std::string& prefix = {})
{
    std::string text;
    for (const std::string& name : names)
        text += (text.empty() ? "" : " ") + prefix + name;
    return text;
}

std::string makeBash(const std::vector<CommandEntry>& entries)
{
    std::string values;
    std::string options;
    for (const CommandEntry& entry : entries)
    {
        std::string names;
        for (const OptionEntry& option : entry.options)
        {
            const std::string longNames = join(option.longNames, "--");
            names += " " + longNames;
            if (!option.takesValue)
                continue;
            std::string pattern;
            for (const std::string& name : option.shortNames)
                pattern += "'" + entry.path + ":-" + name + "'|";
            pattern += "'" + entry.path + ":" + longNames + "'";
            const std::string reply = option.takesFile ? "-f" : "-W '" + option.words + "'";
            values += "    " + pattern + ") COMPREPLY=($(compgen " + reply +
                      " -- \"$cur\")); return ;;\n";
        }
        options += "    '" + entry.path + "') options='" + names.substr(names.empty() ? 0 : 1) +
                   "'; words='" + join(entry.subcommands) + "' ;;\n";
    }
    return "_vlx()\n{\n"
           "    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]}\n"
           "    local path= options= words=" +
           ("'" + join(entries.front().subcommands) + "'") +
           " word\n"
           "    for word in \"${COMP_WORDS[@]:1:COMP_CWORD-1}\"; do\n"
           "        [[ \" $words \" == *\" $word \"* ]] || continue\n"
           "        path+=${path:+ }$word\n"
           "        case $path in\n" +
           options +
           "    esac\n"
           "    done\n"
           "    case $path in\n" +
           options +
           "    esac\n"
           "    case $path:$prev in\n" +
           values +
           "    esac\n"
           "    if [[ $cur == -* ]]; then COMPREPLY=($(compgen -W \"$options\" -- \"$cur\"))\n"
           "    elif [[ $words ]]; then COMPREPLY=($(compgen -W \"$words\" -- \"$cur\"))\n"
           "    else COMPREPLY=($(compgen -f -- \"$cur\"))\n"
           "    fi\n"
           "}\n"
           "complete -o filenames -F _vlx vlx\n";
}

std::string makeZshArguments(const CommandEntry& entry)
{
    std::string text;
    for (const OptionEntry& option : entry.options)
    {
        std::string value;
        if (option.takesFile)
            value = ":file:_files";
        else if (option.takesValue)
            value = ":value:(" + option.words + ")";
        for (const std::string& name : option.shortNames)
            text += " '-" + name + "[" + option.help + "]" + value + "'";
        for (const std::string& name : option.longNames)
            text += " '--" + name + "[" + option.help + "]" + value + "'";
    }
    return text + (entry.takesFiles ? " '*:file:_files'" : "");
}

std::string makeZsh(const std::vector<CommandEntry>& entries)
{
    std::string cases;
    std::string known;
    for (const CommandEntry& entry : entries)
    {
        const std::size_t cut = entry.path.rfind(' ');
        const bool isInner = cut != std::string::npos;
        if (!entry.path.empty())
            known += "    '" + (isInner ? entry.path : " " + entry.path) + "') path_of_command='" +
                     entry.path + "' ;;\n";
        cases += "    '" + entry.path + "')";
        cases += entry.subcommands.empty() ? " _arguments" + makeZshArguments(entry)
                                           : " _values subcommand " + join(entry.subcommands);
        cases += " ;;\n";
    }
    return "#compdef vlx\n"
           "local path_of_command='' word\n"
           "for word in ${words[2,CURRENT-1]}; do\n"
           "    case \"$path_of_command ${word}\" in\n" +
           known +
           "    esac\n"
           "done\n"
           "case $path_of_command in\n" +
           cases + "esac\n";
}

std::string makeFish(const std::vector<CommandEntry>& entries)
{
    std::string text;
    for (const CommandEntry& entry : entries)
    {
        std::string condition = "__fish_use_subcommand";
        if (!entry.path.empty())
            condition =
                "__fish_seen_subcommand_from " + entry.path.substr(entry.path.rfind(' ') + 1);
        const std::string begin = "complete -c vlx -n '" + condition + "'";
        for (const std::string& name : entry.subcommands)
            text += begin + " -f -a '" + name + "'\n";
        for (const OptionEntry& option : entry.options)
        {
            text += begin;
            for (const std::string& name : option.shortNames)
                text += " -s " + name;
            for (const std::string& name : option.longNames)
                text += " -l " + name;
            if (option.takesValue)
                text += option.takesFile ? " -r -F" : " -x";
            if (!option.words.empty())
                text += " -a '" + option.words + "'";
            text += " -d '" + option.help + "'\n";
        }
    }
    return text;
}

} // unnamed namespace

std::string makeCompletions(const CLI::App& program, const std::string& shell)
{
    std::vector<CommandEntry> entries;
    collect(program, {}, entries);
    if (shell == "bash")
        return makeBash(entries);
    if (shell == "zsh")
        return makeZsh(entries);
    return shell == "fish" ? makeFish(entries) : std::string();
}

} // namespace vlx::tool
