#pragma once

/// Buffers of any media as frames of a stream, and back.

#include <cstdint>

#include <gst/gst.h>

#include <vlxkit/Consumer.hpp>
#include <vlxkit/Media.hpp>

namespace vlx::gst
{

/// @return the head of a buffer's frame, with its flags and offset only
kit::MediaHead makeHead(GstBuffer* buffer);

/// Makes a buffer of a received frame, with the flags and the offset that its head has.
///
/// @param frame  held by the buffer; with a head
/// @return a new reference, without timestamps
GstBuffer* makeBuffer(kit::ReceivedFrame&& frame, const kit::MediaHead& head);

/// Finds frames that cannot be decoded because an earlier one was lost.
///
/// A value type.
class LossFilter
{
public:
    /// Looks at the next frame of a stream.
    ///
    /// @param isLoss  something is known to be missing before the frame
    void add(const kit::MediaHead& head, bool isLoss);

    /// @return whether something is missing before the last frame
    bool isLoss() const
    {
        return m_isLoss;
    }

    /// @return whether the last frame is of no use before the next key frame
    bool isDamaged() const
    {
        return m_isDamaged;
    }

private:
    std::uint64_t m_lastNumber = 0;
    bool m_isLoss = false;
    bool m_isDamaged = false;
};

} // namespace vlx::gst
