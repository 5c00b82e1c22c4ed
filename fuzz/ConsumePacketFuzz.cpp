// Sends sequences of packets, resets and out-of-band headers through a DepayloaderList. An accepted
// packet equals the produced one, and no frame is accepted without a codec.

#include <array>

#include "support/Fuzz.hpp"

namespace
{

using namespace vlx;
using fuzz::check;
using Retcode = DepayloaderList::ConsumePacketRetcode;

constexpr std::size_t MinPacketBytes = 5; // shorter ones are refused by assertion
constexpr std::size_t SequenceInfoHeaderBytes = 8;
constexpr std::size_t FrameHeaderBytes = 20;

class Run
{
public:
    explicit Run(fuzz::InputReader input) : m_input(input), m_knowsScramble(m_input.take() % 2 != 0)
    {
        m_list.addDepayloader(m_replacedPcm);
        m_list.addDepayloader(m_pcm);
        if (m_knowsScramble)
            m_list.addDepayloader(m_scrambler);
    }

    void play()
    {
        while (!m_input.isEmpty())
            step();
        check(m_replacedPcm.getSampleRate() == 0, "a replaced depayloader is never asked");
    }

private:
    std::uint32_t takeFourcc()
    {
        const std::uint8_t choice = m_input.take();
        const std::array known = {PcmFourcc, fuzz::ScrambleFourcc};
        return choice < 2 * known.size() ? known[choice % known.size()]
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
        {
            const auto sequenceNr = m_input.take<std::uint16_t>();
            const std::uint32_t fourcc = takeFourcc();
            const ByteView header = m_input.takeBlock();
            produceSequenceInfoPacket(m_packet, fourcc, header, sequenceNr);
            checkCodec(consume(m_packet) == Retcode::Ok, fourcc, header);
            checkHead(PacketType::SequenceInfo, sequenceNr);
            break;
        }
        case 2:
        case 3:
            consumeFrame();
            break;
        case 4:
            m_packet.resize(std::min<std::size_t>(m_input.take(), m_packet.size()));
            consume(m_packet);
            break;
        case 5:
        {
            const std::uint32_t fourcc = takeFourcc();
            const ByteView header = m_input.takeBlock();
            checkCodec(m_list.setOutOfBandInfo(fourcc, header), fourcc, header);
            break;
        }
        case 6:
        {
            const Buffer mediaData = m_list.getCurrentFrameMediaData();
            check(m_list.stealCurrentFrameMediaData() == mediaData, "media data is handed over");
            check(m_list.getCurrentFrameMediaData().empty(), "what was handed over is gone");
            break;
        }
        case 7:
            m_numResets += m_knowsScramble ? 1 : 0;
            m_list.reset();
            checkHead(PacketType::Unknown, 0);
            check(m_list.getCurrentDepayloader() == nullptr, "a reset forgets the codec");
            checkFrame(0, 0, {});
            check(m_scrambler.numResets == m_numResets, "a reset reaches the codecs once");
            break;
        }
    }

    void consumeFrame()
    {
        const auto sequenceNr = m_input.take<std::uint16_t>();
        const auto timestamp = m_input.take<TimeValue>();
        const auto duration = m_input.take<TimeValue>();
        const ByteView mediaData = m_input.takeBlock();
        PcmPayloader().produceFramePacket(m_packet, sequenceNr, timestamp, duration, mediaData);
        const Retcode retcode = consume(m_packet);
        checkHead(PacketType::Frame, sequenceNr);
        if (retcode != Retcode::Ok)
            return;
        const Buffer plain(mediaData.begin(), mediaData.end());
        const bool isScrambled = m_list.getCurrentDepayloader() == &m_scrambler;
        checkFrame(timestamp, duration, isScrambled ? fuzz::scramble(plain) : plain);
    }

    Retcode consume(const ByteView& packet)
    {
        if (packet.size() < MinPacketBytes)
            return Retcode::Error;
        const bool hasCodec = m_list.getCurrentDepayloader() != nullptr;
        const Retcode retcode = m_list.consumePacket(packet);
        const PacketType type = m_list.getCurrentPacketType();
        checkHead(parsePacketType(packet), parsePacketSequenceNr(packet));
        check(
            (retcode == Retcode::NoCurrentDepayloader) == (type == PacketType::Frame && !hasCodec),
            "no frame is taken without a codec");
        constexpr std::array MinBytes = {MinPacketBytes, SequenceInfoHeaderBytes, FrameHeaderBytes};
        check(
            retcode != Retcode::Ok || packet.size() >= MinBytes[static_cast<std::size_t>(type)],
            "no packet is taken that ends before its fields do");
        return retcode;
    }

    void checkHead(PacketType type, std::uint16_t sequenceNr)
    {
        check(m_list.getCurrentPacketType() == type, "the type is the packet's");
        check(m_list.getCurrentSequenceNr() == sequenceNr, "the number is the packet's");
        check(toString(type) != "<dummy>", "each packet is of a type that has a name");
    }

    /// Checks the state after a codec header.
    void checkCodec(bool isAccepted, std::uint32_t fourcc, const ByteView& header)
    {
        Depayloader* expected = fourcc == PcmFourcc ? &m_pcm : nullptr;
        if (fourcc == fuzz::ScrambleFourcc && m_knowsScramble)
            expected = &m_scrambler;
        check(m_list.getCurrentDepayloader() == expected, "the announced codec is selected");
        // The same header gets the same result again.
        const bool isUsable = expected != nullptr && expected->processCodecHeader(header);
        check(isAccepted == isUsable, "a header is accepted if the codec accepts it");
    }

    void checkFrame(TimeValue timestamp, TimeValue duration, const Buffer& mediaData)
    {
        check(m_list.getCurrentFrameTimestamp() == timestamp, "the timestamp is the frame's");
        check(m_list.getCurrentFrameDuration() == duration, "the duration is the frame's");
        check(m_list.getCurrentFrameMediaData() == mediaData, "the media data is the frame's");
    }

    fuzz::InputReader m_input;
    bool m_knowsScramble;
    int m_numResets = 0;
    PcmDepayloader m_replacedPcm;
    PcmDepayloader m_pcm;
    fuzz::ScrambleDepayloader m_scrambler;
    DepayloaderList m_list;
    Buffer m_packet;
};

} // unnamed namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz::silenceLog();
    Run({data, size}).play();
    return 0;
}
