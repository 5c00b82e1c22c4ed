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

/// @return a packet with four bytes of media data and a duration of 10
inline Buffer makeFrame(std::uint16_t sequenceNr, std::uint8_t timestamp)
{
    Buffer packet = fromHex("02 00 0000 0000000000000000 0A00000000000000 D0D1D2D3");
    packet[2] = static_cast<std::uint8_t>(sequenceNr);
    packet[3] = static_cast<std::uint8_t>(sequenceNr >> 8);
    packet[4] = timestamp;
    return packet;
}

/// What a sender says about the clock of its stream, as bytes of the InitialInfo packet.
struct RawClockInfo
{
    std::string address;
    std::uint16_t port = 0;
    std::uint8_t protocol = 2; ///< 1: network clock, 2: monotonic system clock
};

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
          m_sidechannel(Descriptor())
    {
        if (m_protocol == NanomsgProtocol::PubSub)
            m_pub.bind(m_uri);
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
        Buffer packet = fromHex("0100");
        append(packet, m_clock.address + '\0');
        packet.push_back(static_cast<std::uint8_t>(m_clock.port));
        packet.push_back(static_cast<std::uint8_t>(m_clock.port >> 8));
        packet.push_back(m_clock.protocol);
        packet.push_back(m_protocol == NanomsgProtocol::Pipeline ? 1 : 2);
        append(packet, m_uri + '\0');
        return packet;
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
        if (hasToConnect && !m_push.connect(m_uri))
            return false;
        return getMain().waitForPeers();
    }

    /// Takes the next receiver, as far as the announcement of a sequence.
    bool serve(std::uint16_t sequenceNr = 1)
    {
        return greet() && sendOverSidechannel(makeSequenceInfo(sequenceNr)) && joinMainChannel();
    }

    bool sendOverSidechannel(const Buffer& packet, std::size_t sliceSize = 0)
    {
        return m_sidechannel.send(makeSidechannelMessage(packet), sliceSize);
    }

    bool sendOverMainChannel(const Buffer& packet)
    {
        return getMain().send(packet);
    }

    const std::string& getURI() const
    {
        return m_uri;
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
        if (m_protocol == NanomsgProtocol::Pipeline)
            return m_push;
        return m_pub;
    }

private:
    static void append(Buffer& packet, const std::string& text)
    {
        packet.insert(packet.end(), text.begin(), text.end());
    }

    const NanomsgProtocol m_protocol;
    const RawClockInfo m_clock;
    const std::string m_uri;
    RawSidechannelServer m_listener;
    RawConnection m_sidechannel;
    RawNanomsgPub m_pub;
    RawNanomsgPush m_push;
    bool m_isPushConnected = false; // from then on it connects again by itself
};

} // namespace vlx::testing
