#pragma once

/// Memory that upstream elements fill and vlxsink sends without a copy.

#include <gst/gst.h>

#include <vlxkit/Producer.hpp>

#include "Clocks.hpp"

namespace vlx::gst
{

/// Allocator of a producer's frame memory. The memory stays valid as long as it is referenced.
/// Memory that was sent is never changed: a write to it goes to a copy.
///
/// @thread any
class FrameAllocator
{
public:
    FrameAllocator();

    /// @return the allocator to offer upstream
    GstAllocator* get() const
    {
        return m_allocator.get();
    }

    /// Sets the source of memory.
    ///
    /// @param producer   must outlive its use; null: ordinary memory
    /// @param headBytes  space in front of the memory for the head of a frame, bytes
    void setProducer(kit::Producer* producer, std::size_t headBytes = 0);

    /// Marks a buffer's memory as sent, before it is sent for the first time.
    ///
    /// @param buffer  mapped to be read
    /// @return whether it can be sent in place; false while its memory is mapped to be written
    static bool seal(GstBuffer* buffer);

    /// Marks a buffer's memory as sent, together with the space for the head in front of it. A
    /// pool then replaces this memory, even if null is returned.
    ///
    /// @return where to write the head, directly in front of the buffer's bytes; null if the buffer
    ///         cannot be sent in place, or was sent before
    static std::uint8_t* sealWithHead(GstBuffer* buffer, std::size_t headBytes);

private:
    ObjectPtr<GstAllocator> m_allocator;
};

} // namespace vlx::gst
