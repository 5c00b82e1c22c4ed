#include "Duration.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <limits>

#include "Numbers.hpp"

namespace vlx::tool
{

namespace
{

struct Unit
{
    std::string_view name;
    std::int64_t nanoseconds;
};

// Largest first.
constexpr std::array<Unit, 7> Units = {
    {{"h", 3'600'000'000'000},
     {"min", 60'000'000'000},
     {"m", 60'000'000'000},
     {"s", 1'000'000'000},
     {"ms", 1'000'000},
     {"us", 1'000},
     {"ns", 1}}};

// Up to here, 104 days, every nanosecond is told exactly.
constexpr double LongestNs = 1LL << std::numeric_limits<double>::digits;

} // unnamed namespace

std::optional<std::chrono::nanoseconds> parseDuration(std::string_view text)
{
    double sum = 0;
    std::int64_t lastUnit = std::numeric_limits<std::int64_t>::max();
    bool isFirst = true;
    do
    {
        const auto number = takeDecimal(text);
        std::string_view name = text.substr(0, text.find_first_of("0123456789."));
        text.remove_prefix(name.size());
        if (isFirst && name.empty() && text.empty())
            name = "s";
        const auto* const unit =
            std::find_if(Units.begin(), Units.end(), [&](const Unit& u) { return u.name == name; });
        if (!number || unit == Units.end() || unit->nanoseconds >= lastUnit)
            return std::nullopt;
        lastUnit = unit->nanoseconds;
        sum += *number * static_cast<double>(unit->nanoseconds);
        isFirst = false;
    } while (!text.empty());
    if (sum > LongestNs)
        return std::nullopt;
    return std::chrono::nanoseconds(std::llround(sum));
}

std::string toText(std::chrono::nanoseconds duration)
{
    const std::int64_t ns = duration.count();
    for (const Unit& unit : Units)
    {
        if (ns != 0 && ns % unit.nanoseconds == 0)
            return std::to_string(ns / unit.nanoseconds) + std::string(unit.name);
    }
    return "0s";
}

} // namespace vlx::tool
