#include "ListModel.hpp"

#include "Check.hpp"

namespace vlx::fuzz
{

std::uint64_t readField(const ByteView& bytes, std::size_t offset, std::size_t size)
{
    std::uint64_t value = 0;
    for (std::size_t i = size; i-- > 0;)
        value = value * 256 + bytes[offset + i];
    return value;
}

bool PcmModel::process(const ByteView& header)
{
    if (header.size() < 4)
        return false;
    sampleRate = static_cast<std::uint32_t>(readField(header, 0, 4));
    if (header.size() < 5)
        return false;
    numChannels = header[4];
    if (header.size() < 6)
        return false;
    sampleFormat = header[5];
    return sampleRate > 0 && numChannels > 0 && sampleFormat < 12;
}

void PcmModel::compare(const PcmDepayloader& depayloader) const
{
    check(depayloader.getSampleRate() == sampleRate, "the sample rate is the header's");
    check(depayloader.getNumChannels() == numChannels, "the channel count is the header's");
    check(
        static_cast<std::int32_t>(depayloader.getSampleFormat()) == sampleFormat,
        "the sample format is the header's");
}

bool ListModel::select(std::uint32_t fourcc)
{
    m_codec = Codec::None;
    if (fourcc == PcmFourcc)
        m_codec = Codec::Pcm;
    if (fourcc == ScrambleFourcc && m_knowsScramble)
        m_codec = Codec::Scramble;
    return m_codec != Codec::None;
}

bool ListModel::processHeader(const ByteView& header)
{
    if (m_codec == Codec::Pcm)
        return m_pcm.process(header);
    m_scrambleHeader.assign(header.begin(), header.end());
    return header.size() % 2 == 1;
}

ListModel::Retcode ListModel::consume(const ByteView& packet)
{
    m_sequenceNr = static_cast<std::uint16_t>(readField(packet, 2, 2));
    m_packetType = PacketType::Unknown;
    if (packet[0] == 1)
        return consumeSequenceInfo(packet);
    if (packet[0] == 2)
        return consumeFrame(packet);
    return Retcode::Ok;
}

ListModel::Retcode ListModel::consumeSequenceInfo(const ByteView& packet)
{
    m_packetType = PacketType::SequenceInfo;
    if (packet.size() < 8)
        return Retcode::Error;
    if (!select(static_cast<std::uint32_t>(readField(packet, 4, 4))))
        return Retcode::NoMatchingDepayloader;
    return processHeader(packet.subspan(8)) ? Retcode::Ok : Retcode::Error;
}

ListModel::Retcode ListModel::consumeFrame(const ByteView& packet)
{
    m_packetType = PacketType::Frame;
    if (m_codec == Codec::None)
        return Retcode::NoCurrentDepayloader;
    if (packet.size() < 12)
        return Retcode::Error;
    m_timestamp = readField(packet, 4, 8);
    if (packet.size() < 20)
        return Retcode::Error;
    m_duration = readField(packet, 12, 8);
    const ByteView payload = packet.subspan(20);
    m_mediaData =
        m_codec == Codec::Scramble ? scramble(payload) : Buffer(payload.begin(), payload.end());
    return Retcode::Ok;
}

bool ListModel::setOutOfBandInfo(std::uint32_t fourcc, const ByteView& header)
{
    return select(fourcc) && processHeader(header);
}

void ListModel::reset()
{
    m_codec = Codec::None;
    m_packetType = PacketType::Unknown;
    m_sequenceNr = 0;
    m_timestamp = 0;
    m_duration = 0;
    m_mediaData.clear();
    if (m_knowsScramble)
        ++m_numResets;
}

void ListModel::compare(
    const DepayloaderList& list,
    const PcmDepayloader& pcm,
    const ScrambleDepayloader& scrambler) const
{
    const Depayloader* const current = list.getCurrentDepayloader();
    check((current == &pcm) == (m_codec == Codec::Pcm), "PCM is selected when it should be");
    check(
        (current == &scrambler) == (m_codec == Codec::Scramble),
        "the second codec is selected when it should be");
    check(
        (current == nullptr) == (m_codec == Codec::None), "nothing is selected when none matches");
    check(list.getCurrentPacketType() == m_packetType, "the packet type is the last packet's");
    check(list.getCurrentSequenceNr() == m_sequenceNr, "the number is the last packet's");
    check(list.getCurrentFrameTimestamp() == m_timestamp, "the timestamp is the last frame's");
    check(list.getCurrentFrameDuration() == m_duration, "the duration is the last frame's");
    check(list.getCurrentFrameMediaData() == m_mediaData, "the media data is the last frame's");
    m_pcm.compare(pcm);
    check(scrambler.lastHeader == m_scrambleHeader, "the codec is given its header unchanged");
    check(scrambler.numResets == m_numResets, "each reset reaches the codec once");
}

} // namespace vlx::fuzz
