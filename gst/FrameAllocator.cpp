#include "FrameAllocator.hpp"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>

namespace vlx::gst
{

namespace
{

/// An allocator's source of memory.
struct Source
{
    std::mutex mutex;
    // Guarded by the mutex.
    kit::Producer* producer = nullptr;
    std::size_t headBytes = 0;
};

struct Allocator
{
    GstAllocator parent;
    Source* source;
};

struct AllocatorClass
{
    GstAllocatorClass parent;
};

struct Content
{
    kit::FrameMemory frame;
    std::uint8_t* data = nullptr; // aligned, within the frame
    std::size_t headBytes = 0;    // in front of the data
    unsigned numWriters = 0;      // mappings for writing
    bool isSent = false;
};

/// A memory, or a read-only part of one, whose parent is the whole.
struct Memory : GstMemory
{
    std::mutex& getMutex()
    {
        return parent != nullptr ? static_cast<Memory*>(parent)->mutex : mutex;
    }

    std::mutex mutex;                 // that of the whole guards the contents of all parts
    std::shared_ptr<Content> content; // constant in a part
};

/// @return new content for an initialised memory
std::shared_ptr<Content> acquireContent(const Memory& memory)
{
    Source& source = *static_cast<Allocator*>(static_cast<gpointer>(memory.allocator))->source;
    auto content = std::make_shared<Content>();
    {
        const std::lock_guard lock(source.mutex);
        content->headBytes = source.headBytes;
        const std::size_t size = content->headBytes + memory.maxsize + memory.align;
        content->frame =
            source.producer != nullptr
                ? source.producer->acquire(size)
                : kit::FrameMemory{std::make_shared_for_overwrite<std::uint8_t[]>(size), size};
    }
    std::uint8_t* const begin = content->frame.data.get() + content->headBytes;
    content->data = begin + (-reinterpret_cast<std::uintptr_t>(begin) & memory.align);
    return content;
}

GstMemory* allocate(GstAllocator* allocator, gsize size, GstAllocationParams* params)
{
    auto memory = std::make_unique<Memory>();
    gst_memory_init(
        memory.get(), params->flags, allocator, nullptr, params->prefix + size + params->padding,
        params->align, params->prefix, size);
    memory->content = acquireContent(*memory);
    std::uint8_t* const begin = memory->content->data;
    std::fill_n(begin, params->prefix, std::uint8_t{0});
    std::fill_n(begin + params->prefix + size, params->padding, std::uint8_t{0});
    return memory.release();
}

void release(GstAllocator* /*allocator*/, GstMemory* memory)
{
    delete static_cast<Memory*>(memory);
}

gpointer map(GstMemory* mapped, GstMapInfo* info, gsize /*maxSize*/)
{
    auto& memory = *static_cast<Memory*>(mapped);
    const std::lock_guard lock(memory.getMutex());
    if ((info->flags & GST_MAP_WRITE) != 0)
    {
        // Receivers may still read the sent content.
        if (memory.content->isSent)
        {
            const std::shared_ptr<Content> sent =
                std::exchange(memory.content, acquireContent(memory));
            std::copy_n(sent->data, memory.maxsize, memory.content->data);
        }
        ++memory.content->numWriters;
    }
    return memory.content->data;
}

void unmap(GstMemory* mapped, GstMapInfo* info)
{
    auto& memory = *static_cast<Memory*>(mapped);
    const std::lock_guard lock(memory.getMutex());
    if ((info->flags & GST_MAP_WRITE) != 0)
        --memory.content->numWriters;
}

GstMemory* share(GstMemory* shared, gssize offset, gssize size)
{
    auto& memory = *static_cast<Memory*>(shared);
    const gsize start = memory.offset + static_cast<gsize>(offset);
    const gsize end = size >= 0 ? start + static_cast<gsize>(size) : memory.offset + memory.size;
    auto part = std::make_unique<Memory>();
    gst_memory_init(
        part.get(), GST_MEMORY_FLAG_READONLY, memory.allocator,
        memory.parent != nullptr ? memory.parent : shared, memory.maxsize, memory.align, start,
        end - start);
    const std::lock_guard lock(memory.getMutex());
    part->content = memory.content;
    return part.release();
}

// A flat table.
void initClass(gpointer type, gpointer /*data*/)
{
    GST_ALLOCATOR_CLASS(type)->alloc = allocate;
    GST_ALLOCATOR_CLASS(type)->free = release;
    static GObjectClass* const parentClass = G_OBJECT_CLASS(g_type_class_peek_parent(type));
    G_OBJECT_CLASS(type)->finalize = [](GObject* object)
    {
        delete static_cast<Allocator*>(static_cast<gpointer>(object))->source;
        parentClass->finalize(object);
    };
}

void initInstance(GTypeInstance* instance, gpointer /*class*/)
{
    auto* const self = static_cast<Allocator*>(static_cast<gpointer>(instance));
    self->source = new Source;
    self->parent.mem_type = "VlxFrame";
    self->parent.mem_map_full = map;
    self->parent.mem_unmap_full = unmap;
    self->parent.mem_share = share;
}

GType getAllocatorType()
{
    static const GType type = g_type_register_static_simple(
        GST_TYPE_ALLOCATOR, "GstVlxFrameAllocator", sizeof(AllocatorClass), initClass,
        sizeof(Allocator), initInstance, GTypeFlags{});
    return type;
}

/// @return the buffer's memory, if it is the only one and comes from a FrameAllocator; otherwise
///         null, since GStreamer maps several memories as a copy
Memory* findMemory(GstBuffer* buffer)
{
    if (gst_buffer_n_memory(buffer) != 1)
        return nullptr;
    GstMemory* const memory = gst_buffer_peek_memory(buffer, 0);
    return G_TYPE_CHECK_INSTANCE_TYPE(memory->allocator, getAllocatorType()) != FALSE
               ? static_cast<Memory*>(memory)
               : nullptr;
}

} // unnamed namespace

FrameAllocator::FrameAllocator()
    : m_allocator(static_cast<GstAllocator*>(
          gst_object_ref_sink(g_object_new(getAllocatorType(), nullptr))))
{
}

void FrameAllocator::setProducer(kit::Producer* producer, std::size_t headBytes)
{
    Source& source = *static_cast<Allocator*>(static_cast<gpointer>(get()))->source;
    const std::lock_guard lock(source.mutex);
    source.producer = producer;
    source.headBytes = producer != nullptr ? headBytes : 0;
}

bool FrameAllocator::seal(GstBuffer* buffer)
{
    Memory* const memory = findMemory(buffer);
    if (memory == nullptr)
        return true;
    const std::lock_guard lock(memory->getMutex());
    memory->content->isSent = memory->content->numWriters == 0;
    return memory->content->isSent;
}

std::uint8_t* FrameAllocator::sealWithHead(GstBuffer* buffer, std::size_t headBytes)
{
    Memory* const memory = findMemory(buffer);
    if (memory == nullptr)
        return nullptr;
    if (gst_buffer_is_writable(buffer) != FALSE)
        GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_TAG_MEMORY);
    const std::lock_guard lock(memory->getMutex());
    Content& content = *memory->content;
    // A part has bytes of other parts in front of it.
    if (memory->parent != nullptr || memory->offset != 0 || content.headBytes < headBytes ||
        content.isSent || content.numWriters != 0)
        return nullptr;
    content.isSent = true;
    return content.data - headBytes;
}

} // namespace vlx::gst
