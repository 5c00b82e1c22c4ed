// Sends sequences of packets, resets and out-of-band headers through a DepayloaderList: nothing is
// taken that ends too early, no frame without a codec, and a frame that is taken is the one sent.

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
    explicit Run(fuzz::InputReader input) : m_input(input)
    {
        m_list.addDepayloader(m_pcm);
        if (m_input.take() % 2 != 0)
            m_list.addDepayloader(m_scrambler);
    }

    void play()
    {
        while (!m_input.isEmpty())
            step();
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
            produceSequenceInfoPacket(m_packet, fourcc, m_input.takeBlock(), sequenceNr);
            consume(m_packet);
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
            m_list.setOutOfBandInfo(fourcc, m_input.takeBlock());
            break;
        }
        case 6:
            m_list.stealCurrentFrameMediaData();
            check(m_list.getCurrentFrameMediaData().empty(), "what was handed over is gone");
            break;
        case 7:
            m_list.reset();
            check(m_list.getCurrentDepayloader() == nullptr, "a reset forgets the codec");
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
        if (consume(m_packet) != Retcode::Ok)
            return;
        const Buffer plain(mediaData.begin(), mediaData.end());
        const bool isScrambled = m_list.getCurrentDepayloader() == &m_scrambler;
        check(
            m_list.getCurrentFrameTimestamp() == timestamp &&
                m_list.getCurrentFrameDuration() == duration &&
                m_list.getCurrentFrameMediaData() == (isScrambled ? fuzz::scramble(plain) : plain),
            "a frame that is taken is the one sent");
    }

    Retcode consume(const ByteView& packet)
    {
        if (packet.size() < MinPacketBytes)
            return Retcode::Error;
        const bool hasCodec = m_list.getCurrentDepayloader() != nullptr;
        const Retcode retcode = m_list.consumePacket(packet);
        const PacketType type = m_list.getCurrentPacketType();
        check(
            type == parsePacketType(packet) && toString(type) != "<dummy>" &&
                m_list.getCurrentSequenceNr() == parsePacketSequenceNr(packet),
            "type and number are the packet's");
        check(
            (retcode == Retcode::NoCurrentDepayloader) == (type == PacketType::Frame && !hasCodec),
            "no frame is taken without a codec");
        constexpr std::array MinBytes = {MinPacketBytes, SequenceInfoHeaderBytes, FrameHeaderBytes};
        check(
            retcode != Retcode::Ok || packet.size() >= MinBytes[static_cast<std::size_t>(type)],
            "no packet is taken that ends before its fields do");
        return retcode;
    }

    fuzz::InputReader m_input;
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
