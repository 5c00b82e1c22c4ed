// PCM codec headers of any content: read field by field, accepted as documented, produced again.

#include <algorithm>

#include <vlx/VlxPayload.hpp>

#include "support/Check.hpp"
#include "support/InputReader.hpp"
#include "support/ListModel.hpp"

namespace
{

using namespace vlx;
using fuzz::check;

void checkProducedAgain(const PcmDepayloader& depayloader, const ByteView& header)
{
    PcmPayloader payloader;
    payloader.setNewFormat(
        depayloader.getSampleRate(), depayloader.getNumChannels(), depayloader.getSampleFormat());
    const Buffer& again = payloader.getCodecHeader();
    check(again.size() == 6, "a codec header has six bytes");
    check(
        std::equal(again.begin(), again.end(), header.begin()),
        "a header that was accepted is produced again");
}

/// Any three numbers as a format: cut to what the header holds.
void checkAnyFormat(fuzz::InputReader input)
{
    const auto sampleRate = input.take<std::uint32_t>();
    const auto numChannels = input.take<std::uint32_t>();
    const auto sampleFormat = static_cast<audioUtils::PcmFormat>(input.take<std::uint32_t>());
    PcmPayloader payloader;
    payloader.setNewFormat(1, 1, audioUtils::PcmFormat::S8);
    payloader.setNewFormat(sampleRate, numChannels, sampleFormat);
    const Buffer& header = payloader.getCodecHeader();
    check(header.size() == 6, "a codec header replaces the one before");
    check(fuzz::readField(header, 0, 4) == sampleRate, "the header holds the rate");
    check(header[4] == numChannels % 256, "the header holds the low byte of the channels");
    check(
        header[5] == static_cast<std::uint8_t>(sampleFormat),
        "the header holds the low byte of the format");
}

} // unnamed namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    checkAnyFormat(fuzz::InputReader(data, size));

    // Several headers one after the other: a short one leaves fields of the one before.
    PcmDepayloader depayloader;
    fuzz::PcmModel model;
    fuzz::InputReader input(data, size);
    while (!input.isEmpty())
    {
        const ByteView header = input.takeBytes(input.take() % 12U);
        const bool accepted = depayloader.processCodecHeader(header);
        check(accepted == model.process(header), "a header is accepted only if it is usable");
        model.compare(depayloader);
        if (accepted)
            checkProducedAgain(depayloader, header);
    }
    return 0;
}
