#pragma once

#include <cstddef>
#include <cstdint>

#include <vlx/VlxPayload.hpp>

#include "Codecs.hpp"

namespace vlx::fuzz
{

/// @return an integer of some bytes at an offset, lowest byte first
std::uint64_t readField(const ByteView& bytes, std::size_t offset, std::size_t size);

/// What a PcmDepayloader should hold: a second opinion that shares no code with it.
struct PcmModel
{
    std::uint32_t sampleRate = 0;
    std::uint32_t numChannels = 0;
    std::int32_t sampleFormat = 0;

    /// @return whether the header should be accepted
    bool process(const ByteView& header);

    void compare(const PcmDepayloader& depayloader) const;
};

/// What a DepayloaderList with a PcmDepayloader and a ScrambleDepayloader should hold.
class ListModel
{
public:
    using Retcode = DepayloaderList::ConsumePacketRetcode;

    enum class Codec
    {
        None,
        Pcm,
        Scramble,
    };

    /// @param knowsScramble  whether the second codec is registered
    explicit ListModel(bool knowsScramble) : m_knowsScramble(knowsScramble) {}

    Retcode consume(const ByteView& packet);
    bool setOutOfBandInfo(std::uint32_t fourcc, const ByteView& header);
    void reset();

    /// Forgets the media data, which was moved out.
    void dropMediaData()
    {
        m_mediaData.clear();
    }

    Codec getCodec() const
    {
        return m_codec;
    }

    PacketType getPacketType() const
    {
        return m_packetType;
    }

    TimeValue getTimestamp() const
    {
        return m_timestamp;
    }

    TimeValue getDuration() const
    {
        return m_duration;
    }

    const Buffer& getMediaData() const
    {
        return m_mediaData;
    }

    const PcmModel& getPcm() const
    {
        return m_pcm;
    }

    /// Stops the process if anything differs.
    void compare(
        const DepayloaderList& list,
        const PcmDepayloader& pcm,
        const ScrambleDepayloader& scrambler) const;

private:
    bool select(std::uint32_t fourcc);
    bool processHeader(const ByteView& header);
    Retcode consumeSequenceInfo(const ByteView& packet);
    Retcode consumeFrame(const ByteView& packet);

    bool m_knowsScramble;
    Codec m_codec = Codec::None;
    PcmModel m_pcm;
    Buffer m_scrambleHeader;
    int m_numResets = 0;
    PacketType m_packetType = PacketType::Unknown;
    std::uint16_t m_sequenceNr = 0;
    TimeValue m_timestamp = 0;
    TimeValue m_duration = 0;
    Buffer m_mediaData;
};

} // namespace vlx::fuzz
