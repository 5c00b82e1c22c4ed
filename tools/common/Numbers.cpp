#include "Numbers.hpp"

#include <algorithm>
#include <charconv>
#include <limits>

namespace vlx::tool
{

namespace
{

constexpr std::int64_t MaxRate = 2'000'000'000;

// Of a fraction; more change nothing, since no unit has as many parts.
constexpr std::size_t MaxFractionDigits = 15;

std::size_t countDigits(std::string_view text)
{
    return std::min(text.find_first_not_of("0123456789"), text.size());
}

template <class Number>
std::optional<Number> readDigits(std::string_view digits)
{
    Number number = 0;
    const char* const end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, number);
    if (error != std::errc() || stop != end)
        return std::nullopt;
    return number;
}

std::int64_t readFraction(std::string_view digits, std::int64_t unit)
{
    digits = digits.substr(0, MaxFractionDigits);
    __extension__ __int128 value = readDigits<std::int64_t>(digits).value_or(0);
    value *= unit;
    for (std::size_t i = 0; i < digits.size(); ++i)
        value /= 10;
    return static_cast<std::int64_t>(value);
}

} // unnamed namespace

std::optional<std::int64_t> takeDecimal(std::string_view& text, std::int64_t unit)
{
    const std::string_view whole = text.substr(0, countDigits(text));
    text.remove_prefix(whole.size());
    std::string_view fraction;
    if (text.starts_with('.'))
    {
        fraction = text.substr(1, countDigits(text.substr(1)));
        if (fraction.empty())
            return std::nullopt;
        text.remove_prefix(1 + fraction.size());
    }

    const auto number = readDigits<std::int64_t>(whole);
    std::int64_t value = 0;
    if (!number || __builtin_mul_overflow(*number, unit, &value) ||
        __builtin_add_overflow(value, readFraction(fraction, unit), &value))
        return std::nullopt;
    return value;
}

std::optional<std::uint64_t> parseNumber(std::string_view text)
{
    return countDigits(text) == text.size() ? readDigits<std::uint64_t>(text) : std::nullopt;
}

std::optional<std::uint32_t> parseRate(std::string_view text)
{
    constexpr std::int64_t Kilo = 1000;
    const bool hasPoint = text.find('.') != std::string_view::npos;
    const auto thousandths = takeDecimal(text, Kilo);
    if (!thousandths || (hasPoint && text.empty()))
        return std::nullopt;
    const bool isPlain = text.empty() || text == "Hz";
    if (!isPlain && text != "k" && text != "K" && text != "kHz")
        return std::nullopt;
    const std::int64_t rate = isPlain ? *thousandths / Kilo : *thousandths;
    if (rate < 1 || rate > MaxRate)
        return std::nullopt;
    return static_cast<std::uint32_t>(rate);
}

} // namespace vlx::tool
