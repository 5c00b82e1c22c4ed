// Sends sequences of packets, resets and out-of-band headers through a DepayloaderList: it accepts
// no frame without a codec.

#include <array>

#include "support/Fuzz.hpp"

namespace
{

using namespace vlx;
using fuzz::check;
using Retcode = DepayloaderList::ConsumePacketRetcode;

constexpr std::size_t MinPacketBytes = 5; // shorter ones are refused by assertion

class Run
{
public:
    explicit Run(fuzz::InputReader input) : m_input(input)
    {
        m_list.addDepayloader(m_pcm);
        if (m_input.take() % 2 != 0)
            m_list.addDepayloader(m_odd);
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
        const std::array known = {PcmFourcc, fuzz::OddFourcc};
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
        consume(m_packet);
    }

    void consume(const ByteView& packet)
    {
        if (packet.size() < MinPacketBytes)
            return;
        const bool hasCodec = m_list.getCurrentDepayloader() != nullptr;
        const bool isRefused = m_list.consumePacket(packet) == Retcode::NoCurrentDepayloader;
        const bool isFrame = m_list.getCurrentPacketType() == PacketType::Frame;
        check(isRefused == (isFrame && !hasCodec), "no frame is accepted without a codec");
    }

    fuzz::InputReader m_input;
    PcmDepayloader m_pcm;
    fuzz::OddDepayloader m_odd;
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
