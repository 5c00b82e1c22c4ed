// Frames in shared memory, from vlxsink to vlxsrc.

#include <filesystem>
#include <string>
#include <vector>

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
    /// @return description of a sender of what is pushed into "in"; a mebibyte lasts 21 ms
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

    /// @return the number's bytes, as a frame of its own
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

private:
    std::size_t m_number = 0;
};

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
            push(sender, makeBuffer(data));
            const auto frame = receiver.pull();
            ASSERT_TRUE(frame);
            EXPECT_TRUE(frame->data == data) << i;
            EXPECT_EQ(frame->discont, i == 0);
        }
        const std::vector<std::string> rings = listRings();
        EXPECT_EQ(rings.size(), row.isShared ? 1U : 0U);
        g_object_set(sender.find("sink"), "shared-memory", 0, nullptr); // at the next start
        sender.set(GST_STATE_READY);
        EXPECT_TRUE(rings.empty() || !fs::exists(rings.front()));
    }
}

} // namespace

} // namespace vlx::testing
