#pragma once

#include <algorithm>
#include <cstdint>

#include <vlx/VlxPayload.hpp>

namespace vlx::fuzz
{

/// FourCC of a codec that the targets make up, "ScrM". Unlike PCM it changes the bytes of a frame.
inline constexpr std::uint32_t ScrambleFourcc = 0x4D726353;

/// What that codec does to the bytes of a frame; doing it twice gives them back.
inline Buffer scramble(const ByteView& bytes)
{
    Buffer scrambled(bytes.rbegin(), bytes.rend());
    for (auto& byte : scrambled)
        byte ^= 0x5A;
    return scrambled;
}

/// Accepts codec headers of odd length only.
class ScrambleDepayloader : public Depayloader
{
public:
    ScrambleDepayloader() : Depayloader(ScrambleFourcc) {}

    bool processCodecHeader(const ByteView& codecHeader) override
    {
        lastHeader.assign(codecHeader.begin(), codecHeader.end());
        return codecHeader.size() % 2 == 1;
    }

    Buffer unwrapFrame(const ByteView& payload) override
    {
        return scramble(payload);
    }

    void reset() override
    {
        ++numResets;
    }

    Buffer lastHeader; ///< that was offered, accepted or not
    int numResets = 0;
};

/// Produces a codec header from what a depayloader read from one.
inline Buffer produceAgain(const PcmDepayloader& depayloader)
{
    PcmPayloader payloader;
    payloader.setNewFormat(
        depayloader.getSampleRate(), depayloader.getNumChannels(), depayloader.getSampleFormat());
    return payloader.getCodecHeader();
}

/// @return whether the bytes begin with others
inline bool startsWith(const ByteView& bytes, const ByteView& beginning)
{
    return bytes.size() >= beginning.size() &&
           std::equal(beginning.begin(), beginning.end(), bytes.begin());
}

} // namespace vlx::fuzz
