// Durations as users write them: what is read as one is printed and read again as the same, and a
// whole number has the value that its text says.

#include <cctype>
#include <limits>
#include <string>
#include <string_view>

#include "common/Duration.hpp"
#include "support/Fuzz.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace vlx::tool;
    using vlx::fuzz::check;

    const std::string_view text(reinterpret_cast<const char*>(data), size);
    if (const auto duration = parseDuration(text))
    {
        check(duration->count() >= 0, "a duration is not negative");
        check(parseDuration(toText(*duration)) == duration, "a printed duration is read back");
    }

    constexpr std::pair<const char*, std::int64_t> Units[] = {
        {"ns", 1},
        {"us", 1'000},
        {"ms", 1'000'000},
        {"s", 1'000'000'000},
        {"min", 60'000'000'000},
        {"h", 3'600'000'000'000}};
    std::int64_t number = 0;
    for (const char c : text.substr(0, 18))
        number = number * 10 + static_cast<unsigned char>(c) % 10;
    const auto& [unit, factor] = Units[size % std::size(Units)];
    const auto duration = parseDuration(std::to_string(number) + unit);
    const bool fits = number <= std::numeric_limits<std::int64_t>::max() / factor;
    check(duration.has_value() == fits, "a duration is refused only if it does not fit");
    check(!fits || duration->count() == number * factor, "a duration has its text's value");
    return 0;
}
