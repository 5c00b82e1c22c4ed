#pragma once

#include <deque>

#include <miscUtils/TimeValue.hpp>

namespace vlx::kit
{

/// Notices a receiver that joins and drops a sender over and over: five connections lost within a
/// second, none of which announced a sequence.
///
/// A receiver does that without a pause when it has no depayloader for the stream's codec, or when
/// the depayloader rejects the codec's header. Stop it then; probeSender() tells the codec.
///
/// @thread one at a time
class FlapWatch
{
public:
    /// A sequence was announced: what came before does not count any more.
    void onSequence();

    /// A connection was lost.
    ///
    /// @param now  nanoseconds on any steady clock
    void onLoss(miscUtils::TimeValue now);

    bool isFlapping() const;

private:
    std::deque<miscUtils::TimeValue> m_losses; // the last five at most, oldest first
};

} // namespace vlx::kit
