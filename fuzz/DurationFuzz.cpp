// Durations as users write them: accepted exactly when they should be, with the value that a wider
// calculation gives, and read back from the text that the tool prints.

#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>
#include <string_view>

#include "common/Duration.hpp"
#include "support/Check.hpp"

namespace
{

using namespace vlx::tool;
using vlx::fuzz::check;

struct Unit
{
    std::string_view name;
    std::int64_t nanoseconds;
};

constexpr std::array<Unit, 6> Units = {
    {{"ns", 1},
     {"us", 1'000},
     {"ms", 1'000'000},
     {"s", 1'000'000'000},
     {"min", 60'000'000'000},
     {"h", 3'600'000'000'000}}};

// Digits of a number in an hour's nanoseconds: what stands behind changes nothing.
constexpr std::size_t MaxFractionDigits = 13;

std::string_view takeDigits(std::string_view& text)
{
    const std::size_t length = std::min(text.find_first_not_of("0123456789"), text.size());
    const std::string_view digits = text.substr(0, length);
    text.remove_prefix(length);
    return digits;
}

/// @return the number, no higher than so far beyond any duration
double toNumber(std::string_view digits)
{
    double number = 0;
    for (const char c : digits)
        number = std::min(number * 10 + (c - '0'), 1e30);
    return number;
}

/// An independent reading in floating point, which is as exact as the check needs.
struct Reading
{
    bool isWellFormed = false;
    double nanoseconds = 0;
};

Reading read(std::string_view text)
{
    const std::string_view whole = takeDigits(text);
    std::string_view fraction;
    bool hasPoint = false;
    if (text.starts_with('.'))
    {
        hasPoint = true;
        text.remove_prefix(1);
        fraction = takeDigits(text).substr(0, MaxFractionDigits);
    }
    const auto unit = std::find_if(
        Units.begin(), Units.end(), [&](const Unit& candidate) { return candidate.name == text; });
    if (whole.empty() || (hasPoint && fraction.empty()) || unit == Units.end())
        return {};

    double number = 0;
    for (auto c = fraction.rbegin(); c != fraction.rend(); ++c)
        number = (number + (*c - '0')) / 10;
    return {true, (toNumber(whole) + number) * static_cast<double>(unit->nanoseconds)};
}

} // unnamed namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto duration = parseDuration(text);
    const Reading reading = read(text);
    constexpr double Limit = static_cast<double>(std::numeric_limits<std::int64_t>::max());
    const double tolerance = 2 + reading.nanoseconds * 1e-14;

    if (!duration)
    {
        check(
            !reading.isWellFormed || reading.nanoseconds > Limit - tolerance,
            "a duration is refused only if it is none or does not fit");
        return 0;
    }
    check(reading.isWellFormed, "what is read as a duration is one");
    check(duration->count() >= 0, "a duration is not negative");
    const double difference = reading.nanoseconds - static_cast<double>(duration->count());
    check(
        difference < tolerance && difference > -tolerance,
        "a duration has the value that its text says");
    check(parseDuration(toText(*duration)) == duration, "a printed duration is read back");
    return 0;
}
