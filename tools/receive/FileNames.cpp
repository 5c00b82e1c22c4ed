#include "FileNames.hpp"

#include <algorithm>
#include <cctype>
#include <ctime>
#include <filesystem>
#include <iomanip>
#include <sstream>

#include "ReceiveCommand.hpp"
#include "common/Numbers.hpp"
#include "common/Text.hpp"

namespace vlx::tool
{

namespace
{

namespace fs = std::filesystem;

/// @return the path with a number before its extension
std::string numberPath(const fs::path& path, std::size_t number)
{
    const std::string stem = path.stem().string() + formatText("-%03zu", number);
    return fs::path(path).replace_filename(stem + path.extension().string());
}

/// @return the highest number of a file beside the path; 0 without one
std::size_t findHighestNumber(const fs::path& path)
{
    const std::string begin = path.stem().string() + "-";
    const std::string end = path.extension().string();
    const fs::path directory = path.has_parent_path() ? path.parent_path() : fs::path(".");
    std::size_t highest = 0;
    std::error_code error;
    for (fs::directory_iterator entry(directory, error), none; !error && entry != none;
         entry.increment(error))
    {
        const std::string name = entry->path().filename().string();
        if (name.size() <= begin.size() + end.size() || !name.starts_with(begin) ||
            !name.ends_with(end))
            continue;
        constexpr std::uint64_t Highest = 1'000'000'000;
        const auto number = parseNumber(
            std::string_view(name).substr(begin.size(), name.size() - begin.size() - end.size()));
        if (number && *number < Highest)
            highest = std::max<std::size_t>(highest, *number);
    }
    return highest;
}

} // unnamed namespace

std::string expandPattern(const std::string& pattern, std::chrono::system_clock::time_point time)
{
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    std::tm local{};
    ::localtime_r(&seconds, &local);
    std::ostringstream text;
    text << std::put_time(&local, pattern.c_str());
    return text.str();
}

std::string FileNames::getNext(std::chrono::system_clock::time_point time)
{
    if (m_options.namePattern)
    {
        const std::string name = expandPattern(m_options.output, time);
        std::error_code error;
        const bool isTaken = !m_used.insert(name).second ||
                             (!m_options.overwrite && fs::is_regular_file(name, error));
        return isTaken ? numberPath(name, findHighestNumber(name) + 1) : name;
    }
    if (!m_options.split && !m_options.maxDuration)
        return m_options.output;
    if (m_number == 0 && !m_options.overwrite)
        m_number = findHighestNumber(m_options.output);
    return numberPath(m_options.output, ++m_number);
}

} // namespace vlx::tool
