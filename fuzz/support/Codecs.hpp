#pragma once

#include <cstdint>

#include <vlx/VlxPayload.hpp>

namespace vlx::fuzz
{

/// FourCC of a codec that the targets make up, "ScrM". Unlike PCM it changes the bytes of a frame.
inline constexpr std::uint32_t ScrambleFourcc = 0x4D726353;

/// What that codec does to the bytes of a frame; doing it twice gives them back.
Buffer scramble(const ByteView& bytes);

/// Accepts codec headers of odd length only.
class ScrambleDepayloader : public Depayloader
{
public:
    ScrambleDepayloader();

    bool processCodecHeader(const ByteView& codecHeader) override;
    Buffer unwrapFrame(const ByteView& payload) override;
    void reset() override;

    /// Every header that was offered, accepted or not: the last one.
    Buffer lastHeader;
    int numResets = 0;
};

} // namespace vlx::fuzz
