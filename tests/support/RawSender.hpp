#pragma once

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>

#include <vlx/SideChannel.hpp>
#include <vlx/VlxTypes.hpp>

#include "support/RawPeers.hpp"
#include "support/VlxTest.hpp"

namespace vlx::testing
{

/// @return a packet that announces a sequence of PCM
inline Buffer makeSequenceInfo(
    std::uint16_t sequenceNr,
    std::uint32_t sampleRate = 48000,
    std::uint8_t sampleFormat = 2)
{
    Buffer packet = fromHex("01 00 0000 50434D41 00000000 02 00");
    packet[2] = static_cast<std::uint8_t>(sequenceNr);
    packet[3] = static_cast<std::uint8_t>(sequenceNr >> 8);
    for (unsigned int i = 0; i < 4; ++i)
        packet[8 + i] = static_cast<std::uint8_t>(sampleRate >> (8 * i));
    packet[13] = sampleFormat;
    return packet;
}

/// @return a packet with a duration of 10
inline Buffer makeFrame(
    std::uint16_t sequenceNr,
    std::uint8_t timestamp,
    const Buffer& mediaData = {0xD0, 0xD1, 0xD2, 0xD3})
{
    Buffer packet = fromHex("02 00 0000 0000000000000000 0A00000000000000");
    packet[2] = static_cast<std::uint8_t>(sequenceNr);
    packet[3] = static_cast<std::uint8_t>(sequenceNr >> 8);
    packet[4] = timestamp;
    packet.insert(packet.end(), mediaData.begin(), mediaData.end());
    return packet;
}

/// What a sender says about the clock of its stream, as bytes of the InitialInfo packet.
struct RawClockInfo
{
    std::string address;
    std::uint16_t port = 0;
    std::uint8_t protocol = 2; ///< 1: network clock, 2: monotonic system clock
};

inline Buffer
makeInitialInfo(const std::string& uri, NanomsgProtocol protocol, const RawClockInfo& clock = {})
{
    Buffer packet = fromHex("0100");
    packet.insert(packet.end(), clock.address.begin(), clock.address.end());
    const auto port = static_cast<std::uint8_t>(clock.port);
    const auto highPort = static_cast<std::uint8_t>(clock.port >> 8);
    const std::uint8_t channel = protocol == NanomsgProtocol::Pipeline ? 1
                                 : protocol == NanomsgProtocol::PubSub ? 2
                                                                       : 0;
    packet.insert(packet.end(), {0, port, highPort, clock.protocol, channel});
    packet.insert(packet.end(), uri.begin(), uri.end());
    packet.push_back(0);
    return packet;
}

/// A sender made of plain sockets, for one receiver at a time.
class RawSender
{
public:
    RawSender(const std::string& socketName, NanomsgProtocol protocol, RawClockInfo clock = {})
        : RawSender(
              socketName,
              protocol,
              std::move(clock),
              std::string("ipc://") + std::getenv("TMPDIR") + "/raw.ipc")
    {
    }

    RawSender(
        const std::string& socketName,
        NanomsgProtocol protocol,
        RawClockInfo clock,
        std::string uri)
        : m_protocol(protocol),
          m_clock(std::move(clock)),
          m_uri(std::move(uri)),
          m_listener(socketName),
          m_sidechannel(Descriptor()),
          m_main(protocol == NanomsgProtocol::PubSub ? NN_PUB : NN_PUSH)
    {
        if (m_protocol == NanomsgProtocol::PubSub)
            m_main.bind(m_uri);
    }

    ~RawSender()
    {
        const std::string prefix = "ipc://";
        std::error_code error;
        if (m_uri.starts_with(prefix))
            std::filesystem::remove(m_uri.substr(prefix.size()), error);
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
