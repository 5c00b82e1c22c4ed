#include "Duration.hpp"

#include <array>
#include <cstdint>
#include <limits>

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
constexpr std::array<Unit, 6> Units = {
    {{"h", 3'600'000'000'000},
     {"min", 60'000'000'000},
     {"s", 1'000'000'000},
     {"ms", 1'000'000},
     {"us", 1'000},
     {"ns", 1}}};

constexpr std::int64_t MaxNs = std::numeric_limits<std::int64_t>::max();

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

std::optional<std::int64_t> findUnit(std::string_view name)
{
    for (const Unit& unit : Units)
    {
        if (unit.name == name)
            return unit.nanoseconds;
    }
    return std::nullopt;
}

/// Takes the digits off the front of a text.
std::string_view takeDigits(std::string_view& text)
{
    std::size_t length = 0;
    while (length < text.size() && isDigit(text[length]))
        ++length;
    const std::string_view digits = text.substr(0, length);
    text.remove_prefix(length);
    return digits;
}

std::optional<std::int64_t> toWholeUnits(std::string_view digits, std::int64_t unit)
{
    std::int64_t value = 0;
    for (const char c : digits)
    {
        if (value > (MaxNs / unit - (c - '0')) / 10)
            return std::nullopt;
        value = value * 10 + (c - '0');
    }
    return value * unit;
}

// Digits beyond the nanosecond are cut.
std::int64_t toFraction(std::string_view digits, std::int64_t unit)
{
    std::int64_t value = 0;
    std::int64_t rest = unit;
    std::int64_t divisor = 1;
    for (const char c : digits)
    {
        if (divisor > rest)
            break;
        divisor *= 10;
        value += unit / divisor * (c - '0') + unit % divisor * (c - '0') / divisor;
    }
    return value;
}

} // unnamed namespace

std::optional<std::chrono::nanoseconds> parseDuration(std::string_view text)
{
    const std::string_view whole = takeDigits(text);
    std::string_view fraction;
    if (!text.empty() && text.front() == '.')
    {
        text.remove_prefix(1);
        fraction = takeDigits(text);
        if (fraction.empty())
            return std::nullopt;
    }
    const std::optional<std::int64_t> unit = findUnit(text);
    if (whole.empty() || !unit)
        return std::nullopt;

    const std::optional<std::int64_t> wholeNs = toWholeUnits(whole, *unit);
    const std::int64_t fractionNs = toFraction(fraction, *unit);
    if (!wholeNs || *wholeNs > MaxNs - fractionNs)
        return std::nullopt;
    return std::chrono::nanoseconds(*wholeNs + fractionNs);
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
