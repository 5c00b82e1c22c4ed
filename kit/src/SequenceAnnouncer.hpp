#pragma once

#include <chrono>
#include <cstddef>

namespace vlx
{
class Sender;
}

namespace vlx::kit
{

/// Starts sequences so that no receiver misses one for long.
///
/// A receiver that is between its sidechannel and its main-channel connection when a sequence is
/// started hears of it on neither, and then refuses every frame. That is common just after a sender
/// has started, when all that waited for it join at once. So for a second after each sequence every
/// newly joined receiver has another one started, which it cannot miss any more.
///
/// @thread the producing thread
class SequenceAnnouncer
{
public:
    /// @param sender  must outlive the announcer
    explicit SequenceAnnouncer(Sender& sender);

    /// Starts a sequence.
    void announce();

    /// Starts another sequence if a receiver may have missed the last one. Call it before each
    /// frame, and every few milliseconds while no frames are sent.
    ///
    /// @return receivers now joined
    std::size_t checkReceivers();

private:
    Sender& m_sender;
    std::chrono::steady_clock::time_point m_lastSequence; // when it was started
    std::size_t m_numReceivers = 0;                       // at the last check
};

} // namespace vlx::kit
