#include "SequenceAnnouncer.hpp"

#include <utility>

#include <vlx/VlxSender.hpp>

namespace vlx::kit
{

namespace
{

// Far longer than joining takes on a busy machine.
constexpr auto JoiningTime = std::chrono::seconds(1);

} // unnamed namespace

SequenceAnnouncer::SequenceAnnouncer(Sender& sender) : m_sender(sender) {}

void SequenceAnnouncer::announce()
{
    m_sender.startNewSequence();
    m_lastSequence = std::chrono::steady_clock::now();
}

std::size_t SequenceAnnouncer::checkReceivers()
{
    const std::size_t before = std::exchange(m_numReceivers, m_sender.getNumReceivers());
    const auto age = std::chrono::steady_clock::now() - m_lastSequence;
    if (m_numReceivers > before && age < JoiningTime)
        announce();
    return m_numReceivers;
}

} // namespace vlx::kit
