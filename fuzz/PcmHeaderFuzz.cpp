// PCM codec headers of any content: what is accepted is a format, and gives the same bytes again.

#include "support/Fuzz.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace vlx;
    using fuzz::check;

    PcmDepayloader depayloader; // one for all headers: none leaves anything for the next
    fuzz::InputReader input(data, size);
    while (!input.isEmpty())
    {
        const ByteView header = input.takeBytes(input.take() % 12U);
        const bool isAccepted = depayloader.processCodecHeader(header);
        const bool isFormat = depayloader.getSampleRate() > 0 && depayloader.getNumChannels() > 0 &&
                              audioUtils::isValid(depayloader.getSampleFormat());
        const bool isWhole = header.size() >= 6;
        check(isAccepted == (isWhole && isFormat), "a header is accepted if it holds a format");
        const Buffer again = fuzz::produceAgain(depayloader);
        check(again.size() == 6, "a header has six bytes");
        check(
            !isWhole || fuzz::startsWith(header, again),
            "a header that was read is produced again");
    }
    return 0;
}
