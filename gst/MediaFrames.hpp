#pragma once

/// Buffers of any media as frames of a stream, and back.

#include <cstdint>

#include <gst/gst.h>

#include <vlxkit/Consumer.hpp>
#include <vlxkit/Media.hpp>

namespace vlx::gst
{

/// Makes the head of a frame from a buffer: flags and offset, without time and number.
kit::MediaHead makeHead(GstBuffer* buffer);

/// Makes a buffer from a received frame, with the flags and the offset of its head.
///
/// @param frame  begins with a head; owned by the buffer
/// @return a new reference, without timestamps
GstBuffer* makeBuffer(kit::ReceivedFrame&& frame, const kit::MediaHead& head);

/// Checks whether the headers in the caps of a stream precede the media in the stream, too.
///
/// @param first    of the frames that were received
/// @param headers  at least one
bool beginsHeaders(const kit::MediaFrame& first, GstBufferList* headers);

/// Finds frames that cannot be decoded because an earlier one was lost.
///
/// A value type.
class LossFilter
{
public:
    /// Processes the next frame of a stream.
    ///
    /// @param isLoss  whether a loss before the frame is already known
    void add(const kit::MediaHead& head, bool isLoss);

    /// @return whether a frame was lost directly before the last one
    bool isLoss() const
    {
        return m_isLoss;
    }

    /// @return whether the last frame cannot be decoded
    bool isDamaged() const
    {
        return m_isDamaged;
    }

private:
    std::uint64_t m_lastNumber = 0;
    bool m_isLoss = false;
    bool m_isWaiting = false; // for a key frame
    bool m_isDamaged = false;
};

} // namespace vlx::gst
