#pragma once

/// Memory for upstream of vlxsink, which is sent without a copy.

#include <gst/gst.h>

#include <vlxkit/Producer.hpp>

#include "Clocks.hpp"

namespace vlx::gst
{

/// An allocator of a producer's frame memory. Its memory stays valid as long as anyone holds it, and
/// keeps its content: a write to memory that was sent goes to a copy.
///
/// @thread any
class FrameAllocator
{
public:
    FrameAllocator();

    /// @return the allocator, to be offered upstream
    GstAllocator* get() const
    {
        return m_allocator.get();
    }

    /// Chooses where memory comes from.
    ///
    /// @param producer  must outlive its use; null: ordinary memory
    void setProducer(kit::Producer* producer);

    /// Marks a buffer's memory as sent, before it is sent for the first time.
    ///
    /// @param buffer  mapped to be read
    /// @return whether it can be sent in place; false while its memory is mapped to be written
    static bool seal(GstBuffer* buffer);

private:
    ObjectPtr<GstAllocator> m_allocator;
};

} // namespace vlx::gst
