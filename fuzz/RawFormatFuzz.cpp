// The formats of raw samples: their names in each spelling, and the values of any bytes, which give
// the same bytes again.

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>

#include <vlxkit/StreamFormat.hpp>

#include <audioUtils/PcmFormat.hpp>

#include "audio/PcmCodec.hpp"
#include "support/Check.hpp"
#include "support/InputReader.hpp"

namespace
{

using namespace vlx;
using audioUtils::PcmFormat;
using fuzz::check;

PcmFormat getFormat(std::size_t number)
{
    return static_cast<PcmFormat>(number % audioUtils::NumPcmFormats);
}

/// @return whether a text in capitals is a spelling of a format
bool spells(std::string_view text, PcmFormat format)
{
    std::string name(audioUtils::toString(format));
    if (text == name)
        return true;
    if (name.size() < 4)
        return false; // a single byte has no order
    const bool isLittleEndian = name.ends_with("LE");
    if (isLittleEndian && text == name.substr(0, name.size() - 2))
        return true;
    return text == name.insert(name.size() - 2, "_");
}

void checkName(std::string_view text)
{
    std::string capitals(text);
    for (char& c : capitals)
        c = c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    std::optional<PcmFormat> expected;
    for (std::size_t i = 0; i < audioUtils::NumPcmFormats; ++i)
    {
        if (spells(capitals, getFormat(i)))
            expected = getFormat(i);
    }
    check(audioUtils::toPcmFormat(text) == expected, "a format has its spellings and no other");
}

void checkSamples(const ByteView& bytes, PcmFormat format)
{
    const std::size_t sampleBytes = audioUtils::bytesPerSample(format);
    tool::SampleValues values;
    tool::decodeSamples(bytes, format, values);
    Buffer again = {1, 2, 3};
    tool::encodeSamples(values, format, again);
    check(
        again.size() == bytes.size() / sampleBytes * sampleBytes &&
            std::equal(again.begin(), again.end(), bytes.begin()),
        "bytes that became values become the same bytes again");
}

void checkTimes(fuzz::InputReader input)
{
    kit::StreamFormat format;
    format.rate = std::max<std::uint32_t>(input.take<std::uint32_t>(), 1);
    // As many samples as a stream of a century holds at the most.
    const std::uint64_t samples = input.take<std::uint64_t>() % (3'200'000'000ULL * format.rate);
    const TimeValue time = format.toNanoseconds(samples);
    constexpr std::uint32_t HighestExactRate = 500'000'000;
    if (format.rate <= HighestExactRate)
        check(
            format.toSamples(time) == samples, "samples have their times, and times their samples");
}

} // unnamed namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    checkName(std::string_view(reinterpret_cast<const char*>(data), size));
    fuzz::InputReader input(data, size);
    checkTimes(input);
    const PcmFormat format = getFormat(input.take());
    checkSamples(input.takeRest(), format);
    return 0;
}
