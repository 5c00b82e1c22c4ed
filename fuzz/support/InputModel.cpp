#include "InputModel.hpp"

#include <utility>

namespace vlx::fuzz
{

namespace
{

constexpr std::size_t MinPacketBytes = 5;

bool isTooOld(std::uint16_t number, std::uint16_t current)
{
    if (current == 0)
        return false;
    if (number >= 0xFFF0 && current < 15)
        return true;
    return number < current;
}

} // unnamed namespace

void InputModel::connect(std::optional<Receiver::StreamClockType> readyClock)
{
    m_readyClock = readyClock;
    m_isSidechannelOpen = true;
}

void InputModel::disconnect()
{
    m_list.reset();
    m_sequenceNr = 0;
    m_isSidechannelOpen = false;
    m_isAnnounced = false;
    m_isReadyReported = false;
}

bool InputModel::takeStop()
{
    return std::exchange(m_isStopped, false);
}

bool InputModel::pass(std::vector<Event>& events)
{
    if (m_isWokenUp)
    {
        m_isWokenUp = false;
        m_isStopped = true;
        return true;
    }
    const bool isSidechannelReadable = m_isSidechannelOpen && m_sidechannel.isReadable();
    if (m_mainChannel.isEmpty() && !isSidechannelReadable)
        return m_isSidechannelOpen; // the wait has ended without anything

    if (!m_mainChannel.isEmpty())
    {
        const Verdict verdict = takeMainPacket(m_mainChannel.takePacket(), events);
        if (verdict != Verdict::Handled)
            return verdict == Verdict::Dropped;
    }
    if (!isSidechannelReadable)
        return true;
    switch (m_sidechannel.read())
    {
    case Sidechannel::Result::Incomplete:
        break;
    case Sidechannel::Result::Gone:
        m_isSidechannelOpen = false;
        break;
    case Sidechannel::Result::Complete:
        return takeSidechannelMessage(m_sidechannel.getMessage(), events) !=
               Verdict::ConnectionLost;
    }
    return true;
}

InputModel::Verdict InputModel::takeMainPacket(const Buffer& packet, std::vector<Event>& events)
{
    if (packet.size() < MinPacketBytes || !keep(packet))
        return Verdict::Dropped;
    switch (m_list.consume(packet))
    {
    case ListModel::Retcode::NoMatchingDepayloader:
    case ListModel::Retcode::NoCurrentDepayloader:
        return Verdict::Dropped;
    case ListModel::Retcode::Error:
        return Verdict::ConnectionLost;
    case ListModel::Retcode::Ok:
        break;
    }
    deliver(events);
    return Verdict::Handled;
}

InputModel::Verdict
InputModel::takeSidechannelMessage(const Buffer& packet, std::vector<Event>& events)
{
    if (packet.size() < MinPacketBytes)
        return Verdict::ConnectionLost;
    if (!keep(packet))
        return Verdict::Dropped;
    if (m_list.consume(packet) != ListModel::Retcode::Ok)
        return Verdict::ConnectionLost;
    deliver(events);
    return Verdict::Handled;
}

bool InputModel::keep(const Buffer& packet)
{
    const auto number = static_cast<std::uint16_t>(readField(packet, 2, 2));
    const bool opensSequence = packet[0] == 1;
    const bool isFrame = packet[0] == 2;
    if (isTooOld(number, m_sequenceNr))
        return false;
    if (number == m_sequenceNr)
        return !opensSequence;
    if (opensSequence)
    {
        m_sequenceNr = number;
        m_isAnnounced = false;
    }
    return !isFrame;
}

std::uint32_t InputModel::getFourcc() const
{
    return m_list.getCodec() == ListModel::Codec::Pcm ? PcmFourcc : ScrambleFourcc;
}

void InputModel::deliver(std::vector<Event>& events)
{
    if (m_list.getPacketType() == PacketType::Frame)
    {
        Event frame{Event::Kind::Frame};
        frame.timestamp = m_list.getTimestamp();
        frame.duration = m_list.getDuration();
        frame.mediaData = m_list.getMediaData();
        events.push_back(std::move(frame));
    }
    if (m_list.getPacketType() != PacketType::SequenceInfo)
        return;

    Event sequence{Event::Kind::NewSequence, getFourcc()};
    if (m_list.getCodec() == ListModel::Codec::Pcm)
        sequence.sampleRate = m_list.getPcm().sampleRate;
    events.push_back(std::move(sequence));
    m_isAnnounced = true;
    if (m_readyClock && !std::exchange(m_isReadyReported, true))
        events.push_back({Event::Kind::Ready, getFourcc(), 0, *m_readyClock});
}

} // namespace vlx::fuzz
