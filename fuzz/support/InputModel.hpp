#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include <vlx/VlxReceiver.hpp>

#include "ListModel.hpp"
#include "MainChannel.hpp"
#include "Sidechannel.hpp"

namespace vlx::fuzz
{

/// One callback of a receiver.
struct Event
{
    enum class Kind
    {
        NewSequence,
        Ready,
        Frame,
    };

    bool operator==(const Event&) const = default;

    Kind kind;
    std::uint32_t fourcc = 0;     // NewSequence, Ready
    std::uint32_t sampleRate = 0; // NewSequence of PCM
    Receiver::StreamClockType clockType = Receiver::StreamClockType::Undetermined; // Ready
    TimeValue timestamp = 0;
    TimeValue duration = 0;
    Buffer mediaData = {};
};

/// What a running receiver should do with its input, pass by pass: a second opinion on the input
/// loop, the filter by sequence number and the delivery. Its packets come from the writing ends,
/// which know what the receiver finds.
class InputModel
{
public:
    InputModel(MainChannel& mainChannel, Sidechannel& sidechannel)
        : m_mainChannel(mainChannel), m_sidechannel(sidechannel)
    {
    }

    /// A connection has been made.
    ///
    /// @param readyClock  the clock that readiness is reported with; none: one that never
    ///                    synchronises
    void connect(std::optional<Receiver::StreamClockType> readyClock);

    /// The connection has been given up by the worker.
    void disconnect();

    /// The stopping side has written its byte.
    void wakeUp()
    {
        m_isWokenUp = true;
    }

    /// @return whether a pass ends: there is something to find, or nothing can come any more
    bool canPass() const
    {
        return m_isWokenUp || !m_mainChannel.isEmpty() || !m_isSidechannelOpen ||
               m_sidechannel.isReadable();
    }

    /// @return what one pass should return
    bool pass(std::vector<Event>& events);

    bool isSidechannelOpen() const
    {
        return m_isSidechannelOpen;
    }

    bool isSequenceAnnounced() const
    {
        return m_isAnnounced;
    }

    /// @return number of the sequence that was adopted last, 0 without one
    std::uint16_t getSequenceNr() const
    {
        return m_sequenceNr;
    }

    /// @return whether the pass woke the worker up to stop; forgets it
    bool takeStop();

    const ListModel& getList() const
    {
        return m_list;
    }

private:
    enum class Verdict
    {
        Dropped,
        Handled,
        ConnectionLost,
    };

    Verdict takeMainPacket(const Buffer& packet, std::vector<Event>& events);
    Verdict takeSidechannelMessage(const Buffer& packet, std::vector<Event>& events);
    bool keep(const Buffer& packet);
    void deliver(std::vector<Event>& events);
    std::uint32_t getFourcc() const;

    MainChannel& m_mainChannel;
    Sidechannel& m_sidechannel;
    ListModel m_list{true};
    std::optional<Receiver::StreamClockType> m_readyClock;
    std::uint16_t m_sequenceNr = 0;
    bool m_isSidechannelOpen = false;
    bool m_isAnnounced = false;
    bool m_isReadyReported = false;
    bool m_isWokenUp = false;
    bool m_isStopped = false;
};

} // namespace vlx::fuzz
