#include <algorithm>
#include <utility>

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include <vlx/VlxPayload.hpp>

#include "base/Assertions.hpp"
#include "base/Fourcc.hpp"
#include "base/LittleEndian.hpp"

namespace vlx
{

namespace
{

log4cplus::Logger logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("Vellox"));

// Offsets in the packets, in bytes.
constexpr std::size_t PacketTypeOffset = 0;
constexpr std::size_t ReservedOffset = 1;
constexpr std::size_t SequenceNrOffset = 2;
constexpr std::size_t FourccOffset = 4;
constexpr std::size_t TimestampOffset = 4;
constexpr std::size_t DurationOffset = 12;

// Offsets in the PCM codec header.
constexpr std::size_t SampleRateOffset = 0;
constexpr std::size_t NumChannelsOffset = 4;
constexpr std::size_t SampleFormatOffset = 5;

constexpr std::uint8_t LargestSampleFormat = 11;

void writePacketHeader(Buffer& packet, PacketType type, std::uint16_t sequenceNr)
{
    writeLittleEndian(packet, PacketTypeOffset, static_cast<std::uint8_t>(type));
    writeLittleEndian(packet, ReservedOffset, std::uint8_t{0});
    writeLittleEndian(packet, SequenceNrOffset, sequenceNr);
}

/// @return whether the field was there; otherwise it keeps its value
bool readInto(ByteCursor& cursor, TimeValue& field)
{
    const auto value = cursor.read<TimeValue>();
    field = value.value_or(field);
    return value.has_value();
}

} // namespace

const std::uint32_t PcmFourcc = 0x414D4350;

std::string toString(PacketType type)
{
    switch (type)
    {
    case PacketType::Unknown:
        return "unknown";
    case PacketType::SequenceInfo:
        return "sequenceInfo";
    case PacketType::Frame:
        return "frame";
    case PacketType::NumPacketTypes:
        assert(false);
        break;
    }
    return "<dummy>";
}

PacketType parsePacketType(const ByteView& packetData)
{
    assert(packetData.size() >= 1);

    const auto type = static_cast<PacketType>(packetData[PacketTypeOffset]);
    return type == PacketType::SequenceInfo || type == PacketType::Frame ? type
                                                                         : PacketType::Unknown;
}

std::uint16_t parsePacketSequenceNr(const ByteView& packetData)
{
    assert(packetData.size() >= 4);

    return ByteCursor(packetData, SequenceNrOffset).read<std::uint16_t>().value_or(0);
}

void produceSequenceInfoPacket(
    Buffer& packet,
    std::uint32_t fourcc,
    const ByteView& codecHeader,
    std::uint16_t sequenceNr)
{
    packet.clear();
    writePacketHeader(packet, PacketType::SequenceInfo, sequenceNr);
    writeLittleEndian(packet, FourccOffset, fourcc);
    packet.insert(packet.end(), codecHeader.begin(), codecHeader.end());
}

Payloader::Payloader(std::uint32_t fourcc) : m_fourcc(fourcc) {}

Payloader::~Payloader() = default;

std::size_t Payloader::getSizeForWrappedFrame(const ByteView& mediaData) const
{
    return mediaData.size();
}

void Payloader::wrapFrame(Buffer& packet, std::size_t packetOffset, const ByteView& mediaData)
{
    assert((packetOffset + mediaData.size()) <= packet.size());

    std::copy(
        mediaData.begin(), mediaData.end(),
        packet.begin() + static_cast<std::ptrdiff_t>(packetOffset));
}

std::uint32_t Payloader::getFourcc() const
{
    return m_fourcc;
}

const Buffer& Payloader::getCodecHeader() const
{
    return m_codecHeader;
}

void Payloader::produceFramePacket(
    Buffer& packet,
    std::uint16_t sequenceNr,
    TimeValue timestamp,
    TimeValue duration,
    const ByteView& mediaData)
{
    packet.clear();
    writePacketHeader(packet, PacketType::Frame, sequenceNr);
    writeLittleEndian(packet, TimestampOffset, timestamp);
    writeLittleEndian(packet, DurationOffset, duration);

    const std::size_t packetOffset = packet.size();
    packet.resize(packetOffset + getSizeForWrappedFrame(mediaData));
    wrapFrame(packet, packetOffset, mediaData);
}

Depayloader::Depayloader(std::uint32_t fourcc) : m_fourcc(fourcc) {}

Depayloader::~Depayloader() = default;

Buffer Depayloader::unwrapFrame(const ByteView& payload)
{
    return Buffer(payload.begin(), payload.end());
}

void Depayloader::reset() {}

std::uint32_t Depayloader::getFourcc() const
{
    return m_fourcc;
}

DepayloaderList::DepayloaderList()
{
    reset();
}

void DepayloaderList::addDepayloader(Depayloader& depayloader)
{
    m_depayloaders[depayloader.getFourcc()] = &depayloader;
}

bool DepayloaderList::setOutOfBandInfo(std::uint32_t fourcc, const ByteView& codecHeader)
{
    Depayloader* const depayloader = findDepayloader(fourcc);
    m_currentDepayloader = depayloader;
    return depayloader != nullptr && depayloader->processCodecHeader(codecHeader);
}

void DepayloaderList::reset()
{
    m_currentFrameMediaData.clear();
    m_currentFrameTimestamp = 0;
    m_currentFrameDuration = 0;
    m_currentSequenceNr = 0;
    m_currentPacketType = PacketType::Unknown;
    m_currentDepayloader = nullptr;
    for (const auto& [fourcc, depayloader] : m_depayloaders)
        depayloader->reset();
}

DepayloaderList::ConsumePacketRetcode DepayloaderList::consumePacket(const ByteView& packetData)
{
    assert(packetData.size() > 4);

    m_currentPacketType = parsePacketType(packetData);
    m_currentSequenceNr = parsePacketSequenceNr(packetData);

    ByteCursor cursor(packetData, FourccOffset);
    if (m_currentPacketType == PacketType::SequenceInfo)
    {
        const auto fourcc = cursor.read<std::uint32_t>();
        if (!fourcc)
        {
            LOG4CPLUS_ERROR(logger, "Could not read VLX SequenceInfo packet FourCC");
            return ConsumePacketRetcode::Error;
        }
        LOG4CPLUS_DEBUG(
            logger, "Consumed SequenceInfo packet; looking for payloader with FourCC \""
                        << printFourcc(*fourcc) << '"');

        Depayloader* const depayloader = findDepayloader(*fourcc);
        m_currentDepayloader = depayloader;
        if (depayloader == nullptr)
        {
            LOG4CPLUS_DEBUG(logger, "No matching payloader found");
            return ConsumePacketRetcode::NoMatchingDepayloader;
        }
        LOG4CPLUS_DEBUG(logger, "Matching payloader found");

        if (!depayloader->processCodecHeader(cursor.getRest()))
        {
            LOG4CPLUS_ERROR(logger, "Could not process codec header from VLX SequenceInfo packet");
            return ConsumePacketRetcode::Error;
        }
        return ConsumePacketRetcode::Ok;
    }
    if (m_currentPacketType == PacketType::Frame)
    {
        Depayloader* const depayloader = m_currentDepayloader;
        if (depayloader == nullptr)
            return ConsumePacketRetcode::NoCurrentDepayloader;

        if (!readInto(cursor, m_currentFrameTimestamp) || !readInto(cursor, m_currentFrameDuration))
        {
            LOG4CPLUS_ERROR(logger, "Could not read VLX Frame packet timestamp and duration");
            return ConsumePacketRetcode::Error;
        }
        m_currentFrameMediaData = depayloader->unwrapFrame(cursor.getRest());
        return ConsumePacketRetcode::Ok;
    }
    return ConsumePacketRetcode::Ok;
}

Depayloader* DepayloaderList::findDepayloader(std::uint32_t fourcc) const
{
    const auto found = m_depayloaders.find(fourcc);
    return found != m_depayloaders.end() ? found->second : nullptr;
}

const Buffer& DepayloaderList::getCurrentFrameMediaData() const
{
    return m_currentFrameMediaData;
}

Buffer DepayloaderList::stealCurrentFrameMediaData()
{
    return std::exchange(m_currentFrameMediaData, Buffer());
}

TimeValue DepayloaderList::getCurrentFrameTimestamp() const
{
    return m_currentFrameTimestamp;
}

TimeValue DepayloaderList::getCurrentFrameDuration() const
{
    return m_currentFrameDuration;
}

std::uint16_t DepayloaderList::getCurrentSequenceNr() const
{
    return m_currentSequenceNr;
}

PacketType DepayloaderList::getCurrentPacketType() const
{
    return m_currentPacketType;
}

Depayloader* DepayloaderList::getCurrentDepayloader() const
{
    return m_currentDepayloader;
}

PcmPayloader::PcmPayloader() : Payloader(PcmFourcc) {}

PcmPayloader::~PcmPayloader() = default;

void PcmPayloader::setNewFormat(
    std::uint32_t sampleRate,
    std::uint32_t numChannels,
    audioUtils::PcmFormat sampleFormat)
{
    m_codecHeader.clear();
    writeLittleEndian(m_codecHeader, SampleRateOffset, sampleRate);
    writeLittleEndian(m_codecHeader, NumChannelsOffset, static_cast<std::uint8_t>(numChannels));
    writeLittleEndian(m_codecHeader, SampleFormatOffset, static_cast<std::uint8_t>(sampleFormat));
}

PcmDepayloader::PcmDepayloader() : Depayloader(PcmFourcc) {}

PcmDepayloader::~PcmDepayloader() = default;

bool PcmDepayloader::processCodecHeader(const ByteView& codecHeader)
{
    ByteCursor cursor(codecHeader);

    const auto sampleRate = cursor.read<std::uint32_t>();
    if (!sampleRate)
        return false;
    m_sampleRate = *sampleRate;

    const auto numChannels = cursor.read<std::uint8_t>();
    if (!numChannels)
        return false;
    m_numChannels = *numChannels;

    const auto sampleFormat = cursor.read<std::uint8_t>();
    if (!sampleFormat)
        return false;
    m_sampleFormat = static_cast<audioUtils::PcmFormat>(*sampleFormat);

    return *sampleRate != 0 && *numChannels != 0 && *sampleFormat <= LargestSampleFormat;
}

std::uint32_t PcmDepayloader::getSampleRate() const
{
    return m_sampleRate;
}

std::uint32_t PcmDepayloader::getNumChannels() const
{
    return m_numChannels;
}

audioUtils::PcmFormat PcmDepayloader::getSampleFormat() const
{
    return m_sampleFormat;
}

} // namespace vlx
