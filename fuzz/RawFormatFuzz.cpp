// The formats of raw samples: their names in each spelling, and the values of any bytes, which give
// the same bytes again.

#include <cctype>
#include <string>
#include <string_view>

#include <audioUtils/PcmFormat.hpp>

#include "audio/PcmCodec.hpp"
#include "support/Fuzz.hpp"

namespace
{

using namespace vlx;
using audioUtils::PcmFormat;
using fuzz::check;

void checkName(std::string_view text)
{
    const auto format = audioUtils::toPcmFormat(text);
    std::string swapped(text);
    for (char& c : swapped)
        c = static_cast<char>(
            std::islower(c & 0xFF) != 0 ? std::toupper(c) : std::tolower(c & 0xFF));
    check(audioUtils::toPcmFormat(swapped) == format, "capitals and small letters mean the same");
    if (!format)
        return;
    const std::string name(audioUtils::toString(*format));
    check(audioUtils::toPcmFormat(name) == format, "a format's name stands for it");
    const char first = text.front() == 'p' || text.front() == 'P' ? text[4] : text.front(); // pcm_
    check(std::toupper(first & 0xFF) == name.front(), "no spelling changes the kind of samples");
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

} // unnamed namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    checkName(std::string_view(reinterpret_cast<const char*>(data), size));
    fuzz::InputReader input(data, size);
    input.takeBytes(12); // for the names alone
    const PcmFormat format = static_cast<PcmFormat>(input.take() % audioUtils::NumPcmFormats);
    checkSamples(input.takeBytes(size), format);
    return 0;
}
