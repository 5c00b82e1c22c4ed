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
    kit::Producer* producer = nullptr; // guarded by the mutex
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
    const std::size_t size = memory.maxsize + memory.align;
    auto content = std::make_shared<Content>();
    {
        const std::lock_guard lock(source.mutex);
        content->frame =
            source.producer != nullptr
                ? source.producer->acquire(size)
                : kit::FrameMemory{std::make_shared_for_overwrite<std::uint8_t[]>(size), size};
    }
    const auto address = reinterpret_cast<std::uintptr_t>(content->frame.data.get());
    content->data = content->frame.data.get() + (-address & memory.align);
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

} // unnamed namespace

FrameAllocator::FrameAllocator()
    : m_allocator(static_cast<GstAllocator*>(
          gst_object_ref_sink(g_object_new(getAllocatorType(), nullptr))))
{
}

void FrameAllocator::setProducer(kit::Producer* producer)
{
    Source& source = *static_cast<Allocator*>(static_cast<gpointer>(get()))->source;
    const std::lock_guard lock(source.mutex);
    source.producer = producer;
}

bool FrameAllocator::seal(GstBuffer* buffer)
{
    // GStreamer maps several memories as a copy.
    if (gst_buffer_n_memory(buffer) != 1)
        return true;
    GstMemory* const memory = gst_buffer_peek_memory(buffer, 0);
    if (G_TYPE_CHECK_INSTANCE_TYPE(memory->allocator, getAllocatorType()) == FALSE)
        return true;
    auto& sent = *static_cast<Memory*>(memory);
    const std::lock_guard lock(sent.getMutex());
    sent.content->isSent = sent.content->numWriters == 0;
    return sent.content->isSent;
}

} // namespace vlx::gst
