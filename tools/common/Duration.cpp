#include "Duration.hpp"

#include <algorithm>
#include <array>
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

constexpr Unit Second = Units[3];

const Unit* findUnit(std::string_view name)
{
    const auto* const unit =
        std::find_if(Units.begin(), Units.end(), [&](const Unit& u) { return u.name == name; });
    return unit == Units.end() ? nullptr : unit;
}

} // unnamed namespace

std::optional<std::chrono::nanoseconds> parseDuration(std::string_view text)
{
    constexpr std::string_view NumberCharacters = "0123456789.";
    std::int64_t sum = 0;
    std::int64_t lastUnit = std::numeric_limits<std::int64_t>::max();
    const bool isPlain = text.find_first_not_of(NumberCharacters) == std::string_view::npos;
    do
    {
        std::string_view name =
            text.substr(std::min(text.find_first_not_of(NumberCharacters), text.size()));
        name = name.substr(0, name.find_first_of(NumberCharacters));
        const Unit* const unit = isPlain ? &Second : findUnit(name);
        if (unit == nullptr || unit->nanoseconds >= lastUnit)
            return std::nullopt;
        lastUnit = unit->nanoseconds;
        const auto part = takeDecimal(text, unit->nanoseconds);
        if (!part || !text.starts_with(name) || __builtin_add_overflow(sum, *part, &sum))
            return std::nullopt;
        text.remove_prefix(name.size());
    } while (!text.empty());
    return std::chrono::nanoseconds(sum);
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
