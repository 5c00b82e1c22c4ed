#include "Numbers.hpp"

#include <charconv>
#include <cmath>

namespace vlx::tool
{

std::optional<double> takeDecimal(std::string_view& text)
{
    // Neither a sign nor words such as "inf".
    if (text.empty() ||
        std::string_view("0123456789.").find(text.front()) == std::string_view::npos)
        return std::nullopt;
    double number = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number, std::chars_format::fixed);
    if (error != std::errc() || stop[-1] == '.')
        return std::nullopt;
    text.remove_prefix(static_cast<std::size_t>(stop - text.data()));
    return number;
}

std::optional<std::uint64_t> parseNumber(std::string_view text)
{
    std::uint64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && stop == end ? std::optional(number) : std::nullopt;
}

std::optional<std::uint32_t> parseRate(std::string_view text)
{
    constexpr double MaxRate = 2e9;
    constexpr double Tolerance = 1e-6; // of the decimal point's arithmetic
    const auto number = takeDecimal(text);
    const bool isKilo = text == "k" || text == "K" || text == "kHz";
    if (!number || (!isKilo && !text.empty() && text != "Hz"))
        return std::nullopt;
    const double rate = isKilo ? *number * 1000 : *number;
    if (rate < 1 || rate > MaxRate || std::abs(rate - std::round(rate)) > Tolerance)
        return std::nullopt;
    return static_cast<std::uint32_t>(std::lround(rate));
}

} // namespace vlx::tool
