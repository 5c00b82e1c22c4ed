#pragma once

#include <cstddef>
#include <deque>

#include <vlx/VlxTypes.hpp>

#include "ReceiverAccess.hpp"

namespace vlx::fuzz
{

/// The sender's end of a main channel inside the process, kept open from input to input. Pipeline,
/// since its sender knows whether a packet was taken.
class MainChannel
{
public:
    /// Opens both ends.
    explicit MainChannel(ReceiverTestAccess& worker);
    ~MainChannel();

    MainChannel(const MainChannel&) = delete;
    MainChannel& operator=(const MainChannel&) = delete;

    /// Sends a packet, unless the channel is full.
    void send(const ByteView& packet);

    bool isEmpty() const
    {
        return m_packets.empty();
    }

    /// @return the packet that the receiver should find next
    Buffer takePacket();

    /// Throws away what the receiver has not taken.
    void drain();

private:
    ReceiverTestAccess& m_worker;
    int m_socketFD;
    std::deque<Buffer> m_packets;
};

} // namespace vlx::fuzz
