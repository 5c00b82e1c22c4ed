// Frames in shared memory, from vlxsink to vlxsrc.

#include <cstdint>

#include <gst/app/gstappsrc.h>

#include "gst/ElementsFixture.hpp"

namespace vlx::testing
{

namespace
{

namespace fs = std::filesystem;

class ElementsSharedTest : public ElementsTest
{
protected:
    /// @return description of a sender that "in" feeds; a mebibyte lasts 21 ms
    std::string makeInput(const std::string& properties) const
    {
        return "appsrc name=in format=time caps=audio/x-raw,format=F64LE,rate=768000,channels=8,"
               "layout=interleaved,channel-mask=(bitmask)0 ! vlxsink name=sink sync=false "
               "protocol=pipeline socket-name=" +
               m_name + " " + properties;
    }

    /// @return paths of the shared memory of this test's senders
    std::vector<std::string> listRings() const
    {
        const std::string prefix = "VlxSender-";
        std::vector<std::string> paths;
        for (const auto& entry : fs::directory_iterator(m_directory))
        {
            const std::string directory = entry.path().filename().string();
            const std::string ring = "/dev/shm/vlx-" + directory.substr(prefix.size());
            if (fs::exists(ring))
                paths.push_back(ring);
        }
        return paths;
    }

    /// @return a frame that differs from all earlier ones
    std::string makeFrame(std::size_t bytes)
    {
        std::string data(bytes, '\0');
        ++m_number;
        for (std::size_t i = 0; i < bytes; ++i)
            data[i] = static_cast<char>((i + m_number) * (m_number + i / 256));
        return data;
    }

    static GstBuffer* makeBuffer(const std::string& data, GstAllocator* allocator = nullptr)
    {
        GstBuffer* const buffer = gst_buffer_new_allocate(allocator, data.size(), nullptr);
        gst_buffer_fill(buffer, 0, data.data(), data.size());
        return buffer;
    }

    /// @param buffer  taken over
    static void push(const Pipeline& sender, GstBuffer* buffer)
    {
        EXPECT_EQ(gst_app_src_push_buffer(GST_APP_SRC(sender.find("in")), buffer), GST_FLOW_OK);
    }

    /// Pushes a buffer and expects these bytes at the receiver.
    ///
    /// @param buffer  taken over
    /// @return whether they were received as a discontinuity
    static bool expectDelivery(
        const Pipeline& sender,
        const Pipeline& receiver,
        GstBuffer* buffer,
        const std::string& data)
    {
        push(sender, buffer);
        const auto frame = receiver.pull();
        EXPECT_TRUE(frame && frame->data == data);
        return frame && frame->discont;
    }

    /// @return number of copies of these bytes in shared memory
    std::size_t countInRings(const std::string& data) const
    {
        std::size_t count = 0;
        for (const std::string& path : listRings())
        {
            std::ifstream file(path, std::ios::binary);
            std::string ring(fs::file_size(path), '\0');
            file.read(ring.data(), static_cast<std::streamsize>(ring.size()));
            for (auto at = ring.find(data); at != std::string::npos; at = ring.find(data, at + 1))
                ++count;
        }
        return count;
    }

private:
    std::size_t m_number = 0;
};

using AllocatorPtr = std::unique_ptr<GstAllocator, void (*)(gpointer)>;

/// @return the allocator that the sink offers upstream; null: no offer
AllocatorPtr askForAllocator(const Pipeline& sender)
{
    GstPad* const pad = gst_element_get_static_pad(sender.find("in"), "src");
    GstQuery* const query = gst_query_new_allocation(nullptr, FALSE);
    GstAllocator* allocator = nullptr;
    if (gst_pad_peer_query(pad, query) != FALSE && gst_query_get_n_allocation_params(query) > 0)
        gst_query_parse_nth_allocation_param(query, 0, &allocator, nullptr);
    gst_query_unref(query);
    gst_object_unref(pad);
    return {allocator, gst_object_unref};
}

/// @return whether a buffer's first memory lies in a sender's shared memory
bool isInRing(GstBuffer* buffer)
{
    GstMapInfo map;
    GstMemory* const memory = gst_buffer_peek_memory(buffer, 0);
    EXPECT_TRUE(gst_memory_map(memory, &map, GST_MAP_READ));
    const auto address = reinterpret_cast<std::uintptr_t>(map.data);
    gst_memory_unmap(memory, &map);
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);)
    {
        const std::uintptr_t begin = std::stoull(line, nullptr, 16);
        const std::uintptr_t end = std::stoull(line.substr(line.find('-') + 1), nullptr, 16);
        if (address >= begin && address < end)
            return line.find("/dev/shm/vlx-") != std::string::npos;
    }
    return false;
}

TEST_F(ElementsSharedTest, FramesArriveBitExactAndTheMemoryIsRemoved)
{
    struct Row
    {
        const char* use;
        std::size_t bytes;
        bool isShared;
    };
    const Pipeline receiver(makeReceiver());
    receiver.set(GST_STATE_PLAYING);
    const Pipeline sender(makeInput("shared-memory=always"));
    for (const Row& row : std::vector<Row>{
             {"never", 65'536, false},
             {"auto", 1920, false},
             {"auto", 65'536, true},
             {"always", 1920, true},
             {"always", 1 << 20, true},
             {"never", 1 << 20, false}})
    {
        SCOPED_TRACE(::testing::Message() << row.use << " " << row.bytes);
        gst_util_set_object_arg(G_OBJECT(sender.find("sink")), "shared-memory", row.use);
        sender.set(GST_STATE_PLAYING);
        for (int i = 0; i < 6; ++i)
        {
            const std::string data = makeFrame(row.bytes);
            EXPECT_EQ(expectDelivery(sender, receiver, makeBuffer(data), data), i == 0) << i;
        }
        const std::vector<std::string> rings = listRings();
        EXPECT_EQ(rings.size(), row.isShared ? 1U : 0U);
        g_object_set(sender.find("sink"), "shared-memory", 0, nullptr); // at the next start
        sender.set(GST_STATE_READY);
        EXPECT_TRUE(rings.empty() || !fs::exists(rings.front()));
    }
}

/// A sender whose stream is open and whose allocator is known, and its receiver.
class SinkMemoryTest : public ElementsSharedTest
{
protected:
    SinkMemoryTest() : m_receiver(makeReceiver()), m_sender(makeInput("shared-memory=always"))
    {
        m_receiver.set(GST_STATE_PLAYING);
        m_sender.set(GST_STATE_PLAYING);
        const std::string first = makeFrame(FrameBytes);
        expectDelivery(makeBuffer(first), first);
        m_allocator = askForAllocator(m_sender);
    }

    GstBuffer* makeInRing(const std::string& data) const
    {
        GstBuffer* const buffer = makeBuffer(data, m_allocator.get());
        EXPECT_TRUE(isInRing(buffer));
        return buffer;
    }

    void expectDelivery(GstBuffer* buffer, const std::string& data) const
    {
        ElementsSharedTest::expectDelivery(m_sender, m_receiver, buffer, data);
    }

    static constexpr std::size_t FrameBytes = 65'536;

    const Pipeline m_receiver;
    const Pipeline m_sender;
    AllocatorPtr m_allocator{nullptr, gst_object_unref};
};

TEST_F(SinkMemoryTest, FramesFilledInPlaceAreNotCopied)
{
    for (int i = 0; i < 5; ++i)
    {
        const std::string data = makeFrame(FrameBytes);
        GstBuffer* const buffer = makeInRing(data);
        EXPECT_EQ(countInRings(data), 1U);
        expectDelivery(buffer, data);
        EXPECT_EQ(countInRings(data), 1U) << "copied";
    }
    const std::string data = makeFrame(640);
    GstAllocationParams params{GST_MEMORY_FLAG_ZERO_PADDED, 127, 128, 64, {}};
    GstBuffer* const aligned = gst_buffer_new_allocate(m_allocator.get(), data.size(), &params);
    gst_buffer_fill(aligned, 0, data.data(), data.size());
    GstMapInfo map;
    ASSERT_TRUE(gst_buffer_map(aligned, &map, GST_MAP_READ));
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(map.data) % 128, 0U);
    EXPECT_EQ(map.data[640], 0);
    gst_buffer_unmap(aligned, &map);
    expectDelivery(aligned, data);
    EXPECT_EQ(countInRings(data), 1U) << "copied";

    const Pipeline inlineSender(
        "appsrc name=in ! vlxsink socket-name=other wait-for-connection=false");
    inlineSender.set(GST_STATE_PLAYING);
    EXPECT_FALSE(askForAllocator(inlineSender));
}

// Receivers may read sent memory until it is reused.
TEST_F(SinkMemoryTest, SentMemoryIsNeverChanged)
{
    const std::string first = makeFrame(FrameBytes);
    const std::string second = makeFrame(FrameBytes);
    GstBuffer* buffer = makeInRing(first);
    expectDelivery(gst_buffer_ref(buffer), first);
    expectDelivery(gst_buffer_ref(buffer), first);
    EXPECT_EQ(countInRings(first), 1U) << "sent twice, as behind a tee";
    ASSERT_TRUE(waitFor([&] { return GST_MINI_OBJECT_REFCOUNT_VALUE(buffer) == 1; }));
    const std::size_t half = FrameBytes / 2;
    gst_buffer_fill(buffer, 0, second.data(), half);
    EXPECT_EQ(countInRings(first), 1U) << "overwritten";
    expectDelivery(buffer, second.substr(0, half) + first.substr(half));

    // A mapping that stays open.
    buffer = makeInRing(first);
    GstMapInfo map;
    ASSERT_TRUE(gst_buffer_map(buffer, &map, GST_MAP_READWRITE));
    const std::size_t copies = countInRings(first);
    expectDelivery(gst_buffer_ref(buffer), first);
    EXPECT_EQ(countInRings(first), copies + 1);
    std::copy(second.begin(), second.end(), map.data);
    EXPECT_EQ(countInRings(first), copies) << "overwritten";
    gst_buffer_unmap(buffer, &map);
    gst_buffer_unref(buffer);
}

TEST_F(SinkMemoryTest, PartsAndCopiesAreSentIntact)
{
    const std::string data = makeFrame(FrameBytes);
    const std::string half = data.substr(data.size() / 2);
    GstBuffer* const buffer = makeInRing(data);
    GstBuffer* const part =
        gst_buffer_copy_region(buffer, GST_BUFFER_COPY_ALL, half.size(), half.size());
    GstBuffer* const partOfPart = gst_buffer_copy_region(part, GST_BUFFER_COPY_ALL, 640, 1280);
    GstBuffer* const swapped = gst_buffer_append(
        gst_buffer_copy(part), gst_buffer_copy_region(buffer, GST_BUFFER_COPY_ALL, 0, half.size()));
    GstBuffer* writable = gst_buffer_make_writable(gst_buffer_ref(buffer));
    ASSERT_NE(writable, buffer);
    gst_buffer_memset(writable, 0, 7, half.size());
    expectDelivery(writable, std::string(half.size(), 7) + half);
    expectDelivery(swapped, half + data.substr(0, half.size()));
    expectDelivery(part, half);
    expectDelivery(partOfPart, half.substr(640, 1280));
    expectDelivery(buffer, data);
    // Memory beyond half of the ring, and memory of another sink.
    const std::string other = m_name + "2";
    const Pipeline receiver("vlxsrc socket-name=" + other + " ! appsink name=out sync=false");
    receiver.set(GST_STATE_PLAYING);
    const Pipeline sender(makeInput("shared-memory=always socket-name=" + other));
    sender.set(GST_STATE_PLAYING);
    std::vector<GstBuffer*> held;
    std::vector<std::string> contents;
    for (bool isOurs = true; isOurs; isOurs = isInRing(held.back()))
    {
        contents.push_back(makeFrame(FrameBytes));
        held.push_back(makeBuffer(contents.back(), m_allocator.get()));
        ASSERT_LT(held.size(), 1000U);
    }
    EXPECT_GT(held.size(), 1U);
    for (std::size_t i = 0; i < held.size(); ++i)
    {
        ElementsSharedTest::expectDelivery(sender, receiver, gst_buffer_ref(held[i]), contents[i]);
        expectDelivery(held[i], contents[i]);
    }
}

TEST_F(SinkMemoryTest, MemoryOutlivesTheStreamAndTheElement)
{
    const std::string data = makeFrame(FrameBytes);
    GstBuffer* const ofTheFormer = makeInRing(data);
    GstBuffer* const kept = makeInRing(data);
    m_sender.set(GST_STATE_NULL);
    GstBuffer* const before = makeBuffer(data, m_allocator.get());
    EXPECT_FALSE(isInRing(before));
    m_sender.set(GST_STATE_PLAYING);
    expectDelivery(before, data);
    expectDelivery(ofTheFormer, data);
    gst_buffer_unref(makeInRing(data));

    AllocatorPtr allocator(nullptr, gst_object_unref);
    {
        const Pipeline other(makeInput(
            "shared-memory=always wait-for-connection=false "
            "protocol=pubsub socket-name=" +
            m_name + "2"));
        other.set(GST_STATE_PLAYING);
        push(other, makeBuffer(data));
        ASSERT_TRUE(waitFor([&] { return other.getCount("sink", "frames") == 1; }));
        allocator = askForAllocator(other);
    }
    expectDelivery(makeBuffer(data, allocator.get()), data);
    expectDelivery(kept, data);
}

class SourcesTest : public ElementsSharedTest, public ::testing::WithParamInterface<const char*>
{
};

INSTANTIATE_TEST_SUITE_P(
    Media,
    SourcesTest,
    ::testing::Values(
        "audiotestsrc wave=white-noise samplesperbuffer=1024 ! "
        "audio/x-raw,format=F64LE,rate=192000,channels=8 ! vlxsink name=sink shared-memory=auto",
        "videotestsrc ! video/x-raw,format=I420,width=320,framerate=60/1 ! vlxsink name=sink"),
    [](const auto& source) { return source.index == 0 ? "Audio" : "Video"; });

// A pool reuses its memory.
TEST_P(SourcesTest, FillTheSinksMemory)
{
    std::atomic<int> numInRing = 0;
    const Pipeline receiver(makeReceiver());
    const Pipeline sender(GetParam() + (" socket-name=" + m_name));
    const auto count = [](GstPad* /*pad*/, GstPadProbeInfo* info, gpointer counter)
    {
        if (isInRing(GST_PAD_PROBE_INFO_BUFFER(info)))
            ++*static_cast<std::atomic<int>*>(counter);
        return GST_PAD_PROBE_OK;
    };
    GstPad* const pad = gst_element_get_static_pad(sender.find("sink"), "sink");
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, count, &numInRing, nullptr);
    gst_object_unref(pad);
    receiver.set(GST_STATE_PLAYING);
    sender.set(GST_STATE_PLAYING);
    EXPECT_TRUE(waitFor([&] { return numInRing >= 10; }));
    EXPECT_TRUE(receiver.pull());
    sender.set(GST_STATE_NULL);
}

} // namespace

} // namespace vlx::testing
