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
