#pragma once

#include <cstdlib>

#include <vlx/SideChannel.hpp>
#include <vlx/VlxPayload.hpp>

#include "base/SenderDirectory.hpp"
#include "support/RawPeers.hpp"
#include "support/VlxTest.hpp"

namespace vlx::testing
{

/// @return a packet that announces a sequence of stereo PCM
inline Buffer makeSequenceInfo(
    std::uint16_t sequenceNr,
    std::uint32_t sampleRate = 48000,
    audioUtils::PcmFormat format = audioUtils::PcmFormat::S16LE)
{
    PcmPayloader payloader;
    payloader.setNewFormat(sampleRate, 2, format);
    Buffer packet;
    produceSequenceInfoPacket(packet, PcmFourcc, payloader.getCodecHeader(), sequenceNr);
    return packet;
}

/// @return a packet with a duration of 10
inline Buffer makeFrame(
    std::uint16_t sequenceNr,
    TimeValue timestamp,
    const Buffer& mediaData = {0xD0, 0xD1, 0xD2, 0xD3})
{
    Buffer packet;
    PcmPayloader().produceFramePacket(packet, sequenceNr, timestamp, 10, mediaData);
    return packet;
}

/// The clock that a sender announces.
struct RawClockInfo
{
    std::string address = {};
    std::uint16_t port = 0;
    TimeSyncProtocol protocol = TimeSyncProtocol::MonotonicSystemClock;
};

inline Buffer
makeInitialInfo(const std::string& uri, NanomsgProtocol protocol, const RawClockInfo& clock = {})
{
    return produceInitialInfoPacket({1, clock.address, clock.port, clock.protocol, protocol, uri});
}

/// A sender made of plain sockets, for one receiver at a time.
class RawSender
{
public:
    /// @param uri  of the main channel; empty: a file in the directory that "TMPDIR" names
    RawSender(
        const std::string& socketName,
        NanomsgProtocol protocol,
        RawClockInfo clock = {},
        const std::string& uri = {})
        : m_protocol(protocol),
          m_clock(std::move(clock)),
          m_uri(uri.empty() ? makeSocketURI(std::getenv("TMPDIR") + std::string("/raw.ipc")) : uri),
          m_listener(socketName),
          m_sidechannel(Descriptor()),
          m_main(protocol == NanomsgProtocol::PubSub ? NN_PUB : NN_PUSH)
    {
        if (m_protocol == NanomsgProtocol::PubSub)
            m_main.bind(m_uri);
    }

    ~RawSender()
    {
        std::error_code error;
        std::filesystem::remove(toSocketFilePath(m_uri), error);
    }

    RawSender(const RawSender&) = delete;
    RawSender& operator=(const RawSender&) = delete;

    Buffer getInitialInfo() const
    {
        return makeInitialInfo(m_uri, m_protocol, m_clock);
    }

    /// Takes the next receiver and sends it the InitialInfo message.
    bool greet()
    {
        m_sidechannel = m_listener.accept();
        return m_sidechannel.isOpen() && sendOverSidechannel(getInitialInfo());
    }

    /// Waits until the receiver has joined the main channel. In Pipeline it takes 100 ms longer if
    /// the receiver has not bound yet when this is called.
    bool joinMainChannel()
    {
        const bool hasToConnect =
            m_protocol == NanomsgProtocol::Pipeline && !std::exchange(m_isPushConnected, true);
        return (!hasToConnect || m_main.connect(m_uri)) && m_main.waitForPeers();
    }

    /// Takes the next receiver, as far as the announcement of a sequence.
    bool serve(std::uint16_t sequenceNr = 1)
    {
        return greet() && sendOverSidechannel(makeSequenceInfo(sequenceNr)) && joinMainChannel();
    }

    bool sendOverSidechannel(const Buffer& packet)
    {
        return m_sidechannel.send(makeSidechannelMessage(packet));
    }

    bool sendOverMainChannel(const Buffer& packet)
    {
        return m_main.send(packet);
    }

    RawSidechannelServer& getListener()
    {
        return m_listener;
    }

    RawConnection& getSidechannel()
    {
        return m_sidechannel;
    }

    RawNanomsg& getMain()
    {
        return m_main;
    }

private:
    const NanomsgProtocol m_protocol;
    const RawClockInfo m_clock;
    const std::string m_uri;
    RawSidechannelServer m_listener;
    RawConnection m_sidechannel;
    RawNanomsg m_main;
    bool m_isPushConnected = false; // from then on it connects again by itself
};

} // namespace vlx::testing
