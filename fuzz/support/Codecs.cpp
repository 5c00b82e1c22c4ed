#include "Codecs.hpp"

#include <algorithm>

namespace vlx::fuzz
{

Buffer scramble(const ByteView& bytes)
{
    Buffer scrambled(bytes.size());
    std::transform(
        bytes.rbegin(), bytes.rend(), scrambled.begin(),
        [](unsigned char byte) { return static_cast<std::uint8_t>(byte ^ 0x5A); });
    return scrambled;
}

ScrambleDepayloader::ScrambleDepayloader() : Depayloader(ScrambleFourcc) {}

bool ScrambleDepayloader::processCodecHeader(const ByteView& codecHeader)
{
    lastHeader.assign(codecHeader.begin(), codecHeader.end());
    return codecHeader.size() % 2 == 1;
}

Buffer ScrambleDepayloader::unwrapFrame(const ByteView& payload)
{
    return scramble(payload);
}

void ScrambleDepayloader::reset()
{
    ++numResets;
}

} // namespace vlx::fuzz
