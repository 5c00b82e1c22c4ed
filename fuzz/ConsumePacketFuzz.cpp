// Sequences of packets, resets and out-of-band headers through a DepayloaderList, with a model of
// the list beside it.

#include <algorithm>
#include <array>

#include <vlx/VlxPayload.hpp>

#include "support/Check.hpp"
#include "support/InputReader.hpp"
#include "support/ListModel.hpp"
#include "support/SilentLog.hpp"

namespace
{

using namespace vlx;
using fuzz::check;

constexpr std::size_t MinPacketBytes = 5; // shorter ones are refused by assertion

class Run
{
public:
    Run(const std::uint8_t* data, std::size_t size)
        : m_input(data, size), m_knowsScramble(m_input.take() % 2 != 0), m_model(m_knowsScramble)
    {
        m_list.addDepayloader(m_replacedPcm);
        m_list.addDepayloader(m_pcm);
        if (m_knowsScramble)
            m_list.addDepayloader(m_scrambler);
    }

    void play()
    {
        while (!m_input.isEmpty())
        {
            step();
            m_model.compare(m_list, m_pcm, m_scrambler);
        }
        check(m_replacedPcm.getSampleRate() == 0, "a replaced depayloader is never asked");
    }

private:
    std::uint32_t takeFourcc()
    {
        const std::uint8_t choice = m_input.take();
        constexpr std::array Known = {0x414D4350U, fuzz::ScrambleFourcc};
        return choice < 2 * Known.size() ? Known[choice % Known.size()]
                                         : m_input.take<std::uint32_t>();
    }

    void step()
    {
        switch (m_input.take() % 8)
        {
        case 0:
            consume(m_input.takeBlock());
            break;
        case 1:
            consumeSequenceInfo();
            break;
        case 2:
        case 3:
            consumeFrame();
            break;
        case 4:
            consumeTruncated();
            break;
        case 5:
        {
            const std::uint32_t fourcc = takeFourcc();
            const ByteView header = m_input.takeBlock();
            check(
                m_list.setOutOfBandInfo(fourcc, header) == m_model.setOutOfBandInfo(fourcc, header),
                "an out-of-band header is accepted as one in a packet is");
            break;
        }
        case 6:
            check(
                m_list.stealCurrentFrameMediaData() == m_model.getMediaData(),
                "the media data is handed over whole");
            m_model.dropMediaData();
            break;
        case 7:
            m_list.reset();
            m_model.reset();
            break;
        }
    }

    void consumeSequenceInfo()
    {
        const auto sequenceNr = m_input.take<std::uint16_t>();
        const std::uint32_t fourcc = takeFourcc();
        const ByteView header = m_input.takeBlock();
        produceSequenceInfoPacket(m_packet, fourcc, header, sequenceNr);
        check(
            m_packet.size() == 8 + header.size() && m_packet[0] == 1 && m_packet[1] == 0 &&
                fuzz::readField(m_packet, 2, 2) == sequenceNr &&
                fuzz::readField(m_packet, 4, 4) == fourcc,
            "a SequenceInfo packet holds what it was made from");
        consume(m_packet);
    }

    void consumeFrame()
    {
        const auto sequenceNr = m_input.take<std::uint16_t>();
        const auto timestamp = m_input.take<TimeValue>();
        const auto duration = m_input.take<TimeValue>();
        const ByteView mediaData = m_input.takeBlock();
        PcmPayloader payloader;
        payloader.produceFramePacket(m_packet, sequenceNr, timestamp, duration, mediaData);
        check(
            m_packet.size() == 20 + mediaData.size() && m_packet[0] == 2 && m_packet[1] == 0 &&
                fuzz::readField(m_packet, 2, 2) == sequenceNr &&
                fuzz::readField(m_packet, 4, 8) == timestamp &&
                fuzz::readField(m_packet, 12, 8) == duration &&
                std::equal(mediaData.begin(), mediaData.end(), m_packet.begin() + 20),
            "a Frame packet holds what it was made from");
        consume(m_packet);
    }

    /// The front of the last packet that was produced.
    void consumeTruncated()
    {
        const std::size_t length = m_input.take();
        consume(Buffer(
            m_packet.begin(),
            m_packet.begin() + static_cast<std::ptrdiff_t>(std::min(length, m_packet.size()))));
    }

    void consume(const ByteView& packet)
    {
        if (packet.size() < MinPacketBytes)
            return;
        check(
            parsePacketSequenceNr(packet) == fuzz::readField(packet, 2, 2),
            "the number is at its place");
        check(
            m_list.consumePacket(packet) == m_model.consume(packet), "a packet is judged as it is");
        check(parsePacketType(packet) == m_model.getPacketType(), "the type is at its place");
        check(
            toString(m_list.getCurrentPacketType()) != "<dummy>",
            "each packet is of a type that has a name");
    }

    fuzz::InputReader m_input;
    bool m_knowsScramble;
    PcmDepayloader m_replacedPcm;
    PcmDepayloader m_pcm;
    fuzz::ScrambleDepayloader m_scrambler;
    DepayloaderList m_list;
    fuzz::ListModel m_model;
    Buffer m_packet;
};

} // unnamed namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz::silenceLog();
    Run(data, size).play();
    return 0;
}
