// Any media through the elements.

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/audio/audio.h>
#include <gst/video/video.h>

#include <miscUtils/MiscUtils.hpp>

#include "gst/ElementsFixture.hpp"
#include "gst/MediaFormat.hpp"

namespace vlx::testing
{

namespace
{

using kit::MediaHead;

constexpr auto Unknown = std::numeric_limits<std::uint64_t>::max();

/// @return bytes that differ from those of every other number
std::string makeData(std::size_t bytes, std::size_t number)
{
    std::string data(bytes, '\0');
    for (std::size_t i = 0; i < bytes; ++i)
        data[i] = static_cast<char>((i + number) * (number + 1 + i / 256));
    return data;
}

GstBuffer* makeBuffer(const std::string& data)
{
    GstBuffer* const buffer = gst_buffer_new_allocate(nullptr, data.size(), nullptr);
    gst_buffer_fill(buffer, 0, data.data(), data.size());
    return buffer;
}

class ElementsMediaTest : public ElementsTest
{
protected:
    std::string makeInput(const std::string& properties) const
    {
        return "appsrc name=in format=time ! vlxsink name=sink sync=false socket-name=" + m_name +
               " " + properties;
    }

    static void setCaps(const Pipeline& sender, const std::string& text)
    {
        GstCaps* const caps = gst_caps_from_string(text.c_str());
        gst_app_src_set_caps(GST_APP_SRC(sender.find("in")), caps);
        gst_caps_unref(caps);
    }

    /// @param buffer  taken over
    static void push(const Pipeline& sender, GstBuffer* buffer)
    {
        EXPECT_EQ(gst_app_src_push_buffer(GST_APP_SRC(sender.find("in")), buffer), GST_FLOW_OK);
    }
};

// One pipeline after the other medium, without a restart: each row changes the caps.
TEST_F(ElementsMediaTest, EveryMediumArrivesAsItWasSent)
{
    struct Row
    {
        std::string caps;
        std::size_t bytes;
        bool hasDts;
    };
    const std::string picture = "format=I420,interlace-mode=progressive,framerate=30/1,width=";
    const Row rows[] = {
        {"video/x-raw," + picture + "321,height=241", 118'096, false},
        {"video/x-h264,stream-format=avc,alignment=au,codec_data=(buffer)0142c00dffe1,"
         "multiview-flags=(GstVideoMultiviewFlagsSet)0:ffffffff:/right-view-first/left-flipped",
         900, true},
        {"audio/x-raw,format=S16LE,layout=interleaved,rate=48000,channels=2,"
         "channel-mask=(bitmask)3",
         1920, false},
        {"audio/x-opus,channel-mapping-family=0,streamheader=(buffer)<4f707573,4f70>", 70, false},
        {"audio/x-raw,format=S16LE,layout=non-interleaved,rate=8000,channels=2,"
         "channel-mask=(bitmask)3",
         320, false},
        {"application/x-custom,text=(string)\"a, \\\"b\\\" ;c\",numbers=(int)<1,2>", 1, false},
        {"video/x-raw," + picture + "64,height=64", 6144, false},
    };
    for (const char* const use : {"media", "never"})
    {
        SCOPED_TRACE(use);
        const Pipeline receiver(makeReceiver());
        receiver.set(GST_STATE_PLAYING);
        const Pipeline sender(makeInput("protocol=pipeline shared-memory=" + std::string(use)));
        sender.set(GST_STATE_PLAYING);
        std::uint64_t number = 0;
        GstClockTime firstDue = 0;
        for (const Row& row : rows)
        {
            SCOPED_TRACE(row.caps);
            const bool isPcm = row.caps.find("=2,") != std::string::npos && row.bytes == 1920;
            setCaps(sender, row.caps);
            // Pictures are decoded in another order than presented.
            for (const int order : {2, 0, 1})
            {
                const std::string data = makeData(row.bytes, number);
                GstBuffer* const buffer = makeBuffer(data);
                const GstClockTime time = number * 10 * GST_MSECOND + GST_SECOND;
                const GstClockTimeDiff shift = row.hasDts ? order * (7 * Millisecond) : 0;
                GST_BUFFER_PTS(buffer) = time + static_cast<GstClockTime>(shift);
                if (row.hasDts)
                    GST_BUFFER_DTS(buffer) = time;
                GST_BUFFER_DURATION(buffer) = 10 * GST_MSECOND;
                GST_BUFFER_OFFSET(buffer) = 1000 + number;
                const guint flags = row.hasDts && order != 2
                                        ? GST_BUFFER_FLAG_DELTA_UNIT
                                        : GST_BUFFER_FLAG_MARKER | GST_BUFFER_FLAG_CORRUPTED |
                                              GST_BUFFER_FLAG_DROPPABLE;
                GST_BUFFER_FLAG_SET(buffer, flags);
                push(sender, buffer);
                const auto received = receiver.pull();
                ASSERT_TRUE(received);
                EXPECT_TRUE(received->data == data);
                GstCaps* const caps = gst_caps_from_string(received->caps.c_str());
                GstCaps* const expected = gst_caps_from_string(row.caps.c_str());
                EXPECT_TRUE(gst_caps_is_equal(caps, expected)) << received->caps;
                gst_caps_unref(caps);
                gst_caps_unref(expected);
                const GstClockTime due = received->due - time - static_cast<GstClockTime>(shift);
                firstDue = number == 0 ? due : firstDue;
                EXPECT_EQ(due, firstDue);
                EXPECT_EQ(received->duration, 10 * GST_MSECOND);
                EXPECT_EQ(received->ptsOffset, row.hasDts ? std::optional(shift) : std::nullopt);
                EXPECT_EQ(received->offset, isPcm ? Unknown : 1000 + number);
                EXPECT_EQ(received->flags & flags, isPcm ? 0 : flags);
                EXPECT_EQ(received->discont, order == 2);
                ++number;
            }
        }
        EXPECT_EQ(receiver.getCount("src", "dropped"), 0U);
        EXPECT_EQ(receiver.getCount("src", "skipped"), 0U);
    }
}

TEST_F(ElementsMediaTest, PaddedPicturesAndPlanesArePacked)
{
    const Pipeline receiver("vlxsrc socket-name=" + m_name + " ! appsink name=out sync=false");
    receiver.set(GST_STATE_PLAYING);
    const Pipeline sender(makeInput("protocol=pipeline"));
    sender.set(GST_STATE_PLAYING);
    setCaps(sender, "video/x-raw,format=GRAY8,width=4,height=2,framerate=30/1");
    GstBuffer* const picture = makeBuffer("__abcd____efgh____");
    gsize offsets[GST_VIDEO_MAX_PLANES] = {2};
    gint strides[GST_VIDEO_MAX_PLANES] = {8};
    gst_buffer_add_video_meta_full(
        picture, GST_VIDEO_FRAME_FLAG_NONE, GST_VIDEO_FORMAT_GRAY8, 4, 2, 1, offsets, strides);
    push(sender, picture);
    EXPECT_EQ(receiver.pull()->data, "abcdefgh");

    const std::string caps = "audio/x-raw,format=U8,layout=non-interleaved,rate=8000,channels=2,"
                             "channel-mask=(bitmask)3";
    setCaps(sender, caps);
    GstBuffer* const planes = makeBuffer("_abcd___efgh_");
    GstAudioInfo info;
    GstCaps* const planar = gst_caps_from_string(caps.c_str());
    ASSERT_TRUE(gst_audio_info_from_caps(&info, planar));
    gst_caps_unref(planar);
    gsize starts[] = {1, 8};
    gst_buffer_add_audio_meta(planes, &info, 4, starts);
    push(sender, planes);
    GstSample* const sample = gst_app_sink_pull_sample(GST_APP_SINK(receiver.find("out")));
    ASSERT_NE(sample, nullptr);
    GstAudioBuffer mapped;
    ASSERT_TRUE(gst_audio_buffer_map(&mapped, &info, gst_sample_get_buffer(sample), GST_MAP_READ));
    EXPECT_EQ(std::string(static_cast<const char*>(mapped.planes[0]), 4), "abcd");
    EXPECT_EQ(std::string(static_cast<const char*>(mapped.planes[1]), 4), "efgh");
    gst_audio_buffer_unmap(&mapped);
    gst_sample_unref(sample);
}

// Decoders need what precedes a segment. Receivers would take an empty frame for a loss.
TEST_F(ElementsMediaTest, OnlyEncodedMediaBeforeTheSegmentIsSent)
{
    const Pipeline receiver(makeReceiver());
    receiver.set(GST_STATE_PLAYING);
    const Pipeline sender(makeInput("protocol=pipeline"));
    GstElement* const in = sender.find("in");
    g_object_set(in, "handle-segment-change", TRUE, nullptr);
    sender.set(GST_STATE_PLAYING);
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    segment.start = 20 * GST_MSECOND;
    const std::pair<const char*, std::string> rows[] = {
        {"audio/x-raw,format=U8,layout=interleaved,rate=8000,channels=1", "DATA"},
        {"video/x-vp8", "keyDATA"},
        {"video/x-raw,format=GRAY8,width=4,height=1,framerate=30/1", "DATA"},
    };
    for (const auto& [text, expected] : rows)
    {
        SCOPED_TRACE(text);
        GstCaps* const caps = gst_caps_from_string(text);
        GstClockTime time = 0;
        for (const char* const data : {"key", "", "DATA"})
        {
            GstBuffer* const buffer = makeBuffer(data);
            GST_BUFFER_PTS(buffer) = time;
            GST_BUFFER_DURATION(buffer) = GST_MSECOND;
            if (time != 0 && expected != data)
                GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
            time += 10 * GST_MSECOND;
            GstSample* const sample = gst_sample_new(buffer, caps, &segment, nullptr);
            gst_buffer_unref(buffer);
            EXPECT_EQ(gst_app_src_push_sample(GST_APP_SRC(in), sample), GST_FLOW_OK);
            gst_sample_unref(sample);
        }
        gst_caps_unref(caps);
        std::string received;
        while (received.size() < expected.size())
        {
            const auto frame = receiver.pull();
            ASSERT_TRUE(frame) << received;
            received += frame->data;
        }
        EXPECT_EQ(received, expected);
    }
}

TEST_F(ElementsMediaTest, ChangeToOtherMediaDoesNotWaitForReceiversThatHaveLeft)
{
    const Pipeline sender(makeInput(""));
    setCaps(
        sender, "audio/x-raw,format=S16LE,layout=interleaved,rate=48000,channels=2,"
                "channel-mask=(bitmask)3");
    sender.set(GST_STATE_PLAYING);
    push(sender, makeBuffer(makeData(1920, 0)));
    {
        const Pipeline receiver(makeReceiver());
        receiver.set(GST_STATE_PLAYING);
        ASSERT_TRUE(receiver.pull());
    }
    setCaps(sender, "a/b");
    push(sender, makeBuffer("a"));
    EXPECT_TRUE(waitFor([&] { return sender.getCount("sink", "frames") == 2; }));
}

GstPadProbeReturn noteKeyRequest(GstPad* /*pad*/, GstPadProbeInfo* info, gpointer wasAsked)
{
    if (gst_video_event_is_force_key_unit(GST_PAD_PROBE_INFO_EVENT(info)) != FALSE)
        *static_cast<std::atomic<bool>*>(wasAsked) = true;
    return GST_PAD_PROBE_OK;
}

// The encoder makes a key frame only when it is asked to, and not before the receiver has skipped
// frames.
TEST_F(ElementsMediaTest, LateReceiverBeginsWithAKeyFrameThatItGetsAtOnce)
{
    const Pipeline sender(makeInput("wait-for-connection=false"));
    setCaps(sender, "video/x-vp8,width=64,height=64,framerate=200/1");
    std::atomic<bool> isKeyWanted = false;
    GstPad* const pad = gst_element_get_static_pad(sender.find("in"), "src");
    gst_pad_add_probe(
        pad, GST_PAD_PROBE_TYPE_EVENT_UPSTREAM, noteKeyRequest, &isKeyWanted, nullptr);
    gst_object_unref(pad);
    sender.set(GST_STATE_PLAYING);
    std::uint64_t number = 0;
    const auto encode = [&](bool canMakeKey)
    {
        GstBuffer* const buffer = makeBuffer(std::to_string(number));
        GST_BUFFER_DURATION(buffer) = 5 * GST_MSECOND;
        if (number++ != 0 && !(canMakeKey && isKeyWanted.exchange(false)))
            GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
        push(sender, buffer);
        EXPECT_TRUE(waitFor([&] { return sender.getCount("sink", "frames") == number; }));
    };
    encode(true);
    EXPECT_FALSE(isKeyWanted);
    for (const bool waits : {true, false})
    {
        SCOPED_TRACE(waits);
        const Pipeline receiver(makeReceiver(waits ? "" : "wait-for-keyframe=false"));
        receiver.set(GST_STATE_PLAYING);
        GstSample* sample = nullptr;
        GstAppSink* const out = GST_APP_SINK(receiver.find("out"));
        EXPECT_TRUE(waitFor(
            [&]
            {
                encode(waits && receiver.getCount("src", "skipped") > 0);
                sample = gst_app_sink_try_pull_sample(out, 0);
                return sample != nullptr;
            }));
        ASSERT_NE(sample, nullptr);
        EXPECT_EQ(
            GST_BUFFER_FLAG_IS_SET(gst_sample_get_buffer(sample), GST_BUFFER_FLAG_DELTA_UNIT),
            !waits);
        gst_sample_unref(sample);
        EXPECT_EQ(receiver.getCount("src", "skipped") > 0, waits);
    }
}

TEST_F(ElementsMediaTest, LossesAreSkippedUpToTheNextKeyFrame)
{
    constexpr std::uint32_t Delta = MediaHead::DeltaUnit;
    constexpr std::uint32_t Header = MediaHead::Header;
    const Pipeline receiver(makeReceiver());
    UncheckedSender sender(m_name, std::string("video/x-vp8, width=(int)64"));
    receiver.set(GST_STATE_PLAYING);
    struct Row
    {
        std::uint64_t number;
        std::uint32_t flags;
        std::optional<std::int64_t> ptsOffset;
        std::size_t bytes; ///< including the head
    };
    constexpr auto Farthest = std::numeric_limits<std::int64_t>::max();
    const Row rows[] = {
        {1, Delta, 0, 40},  {2, 0, -Farthest, 40},  {3, Delta, Farthest, 40}, {5, Delta, 0, 40},
        {6, Delta, 0, 40},  {7, 0xFFFFFF00, 0, 40}, {8, Delta, 0, 32},        {9, Delta, 0, 7},
        {10, Delta, 0, 40}, {12, 0, 0, 40},         {13, Delta, 0, 40},       {15, Header, {}, 40},
        {16, Delta, 0, 40}, {17, Header, 0, 40},    {18, Delta, 0, 40},       {0, Delta, 0, 40},
        {7, Delta, 0, 40}, // not counted
    };
    std::uint8_t byte = 0;
    for (const Row& row : rows)
    {
        Buffer data(kit::MediaHeadBytes + 8, byte++);
        kit::writeMediaHead({row.flags, row.ptsOffset, {}, row.number}, data.data());
        data.resize(row.bytes);
        sender.send(miscUtils::getMonotonicSysclockTime(), 1, data);
    }
    std::string arrived;
    std::string disconts;
    for (int i = 0; i < 10; ++i)
    {
        const auto frame = receiver.pull();
        ASSERT_TRUE(frame) << arrived;
        arrived += std::to_string(rows[static_cast<std::uint8_t>(frame->data[0])].number) + " ";
        disconts += frame->discont ? "d" : "-";
    }
    EXPECT_EQ(arrived, "2 3 7 12 13 15 17 18 0 7 ");
    EXPECT_EQ(disconts, "d-dd-dd---");
    EXPECT_EQ(receiver.getCount("src", "skipped"), 5U);
    EXPECT_EQ(receiver.getCount("src", "dropped"), 2U) << "without data";
}

TEST_F(ElementsMediaTest, ImagesArriveAlthoughTheirEncoderMarksDeltaUnits)
{
    const Pipeline receiver(makeReceiver());
    UncheckedSender sender(m_name, std::string("image/png"));
    receiver.set(GST_STATE_PLAYING);
    Buffer data(kit::MediaHeadBytes + 1);
    kit::writeMediaHead({MediaHead::DeltaUnit, {}, {}, 2}, data.data());
    sender.send(miscUtils::getMonotonicSysclockTime(), 1, data);
    EXPECT_TRUE(receiver.pull());
}

TEST_F(ElementsMediaTest, LateReceiverGetsTheHeadersInTheCapsFirst)
{
    struct Row
    {
        std::uint64_t number;
        std::uint32_t flags;
        std::string data;
        std::string expected;
        std::string disconts;
    };
    const Row rows[] = {
        {1, 0, "a", "ab", "d-"},
        {2, 0, "a", "HIJKab", "d-d-"},
        {2, MediaHead::Header, "HI", "HIb", "d-"}, // they follow
        {3, MediaHead::Header, "JK", "HIJKJKb", "d-d-"},
    };
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.expected);
        const Pipeline receiver(makeReceiver("wait-for-keyframe=false"));
        UncheckedSender sender(m_name, "a/b, streamheader=(buffer)< 4849, 4a4b >");
        receiver.set(GST_STATE_PLAYING);
        const auto send = [&](const MediaHead& head, const std::string& text)
        {
            Buffer data(kit::MediaHeadBytes);
            kit::writeMediaHead(head, data.data());
            data.insert(data.end(), text.begin(), text.end());
            sender.send(miscUtils::getMonotonicSysclockTime(), 1, data);
        };
        send({row.flags, {}, {}, row.number}, row.data);
        send({0, {}, {}, row.number + 1}, "b");
        std::string received;
        std::string disconts;
        while (received.size() < row.expected.size())
        {
            const auto frame = receiver.pull();
            ASSERT_TRUE(frame) << received;
            disconts += frame->discont ? 'd' : '-';
            const bool isHeader = g_ascii_isupper(frame->data.front()) != FALSE;
            EXPECT_EQ((frame->flags & GST_BUFFER_FLAG_HEADER) != 0, isHeader);
            received += frame->data;
        }
        EXPECT_EQ(received, row.expected);
        EXPECT_EQ(disconts, row.disconts);
    }
}

// Not by their durations.
TEST_F(ElementsMediaTest, FramesAreSentAtTwiceTheSpeedAtMost)
{
    constexpr GstClockTime Hour = 3600 * GST_SECOND;
    struct Row
    {
        GstClockTime step; ///< of the timestamps
        GstClockTime duration;
        std::chrono::milliseconds least; ///< between two frames
    };
    const Row rows[] = {
        {100 * GST_MSECOND, Hour, std::chrono::milliseconds(50)},
        {0, Hour, std::chrono::milliseconds(0)},
        {Hour, Hour, std::chrono::milliseconds(1000)},
        {GST_CLOCK_TIME_NONE, 100 * GST_MSECOND, std::chrono::milliseconds(50)},
    };
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.step);
        const Pipeline sender(makeInput("wait-for-connection=false"));
        setCaps(sender, "a/b");
        sender.set(GST_STATE_PLAYING);
        const auto begin = std::chrono::steady_clock::now();
        for (std::uint64_t i = 0; i < 3; ++i)
        {
            GstBuffer* const buffer = makeBuffer("a");
            if (GST_CLOCK_TIME_IS_VALID(row.step))
                GST_BUFFER_PTS(buffer) = i * row.step;
            GST_BUFFER_DURATION(buffer) = row.duration;
            push(sender, buffer);
        }
        ASSERT_TRUE(waitFor([&] { return sender.getCount("sink", "frames") == 3; }));
        EXPECT_GE(std::chrono::steady_clock::now() - begin, 2 * row.least);
    }
}

// The receiver reads both only after they were sent.
TEST_F(ElementsMediaTest, FramesStayAsTheyWereSentWhenThePropertyChanges)
{
    const std::string file = m_directory + "/received";
    const ChildPipeline receiver(
        "vlxsrc max-queue-time=0 socket-name=" + m_name +
        " ! filesink buffer-mode=2 location=" + file);
    const Pipeline sender(makeInput("shared-memory=always"));
    setCaps(sender, "a/b");
    sender.set(GST_STATE_PLAYING);
    std::string expected;
    const auto sendNext = [&](std::size_t number)
    {
        const std::string data = makeData(1000, number);
        push(sender, makeBuffer(data));
        EXPECT_TRUE(waitFor([&] { return sender.getCount("sink", "frames") == number; }));
        expected += data;
    };
    const auto read = [&]
    {
        std::ifstream stream(file);
        return std::string(std::istreambuf_iterator<char>(stream), {});
    };
    sendNext(1);
    ASSERT_TRUE(waitFor([&] { return read() == expected; }));
    gst_util_set_object_arg(G_OBJECT(sender.find("sink")), "shared-memory", "never");
    receiver.signal(SIGSTOP);
    sendNext(2);
    sendNext(3);
    receiver.signal(SIGCONT);
    EXPECT_TRUE(waitFor([&] { return read() == expected; }));
}

// A vlxsink asks for a key frame when a receiver joins.
TEST_F(ElementsMediaTest, JoinsAgainForAKeyFrameThatDoesNotCome)
{
    const Pipeline receiver(makeReceiver());
    UncheckedSender sender(m_name, std::string("video/x-vp8"));
    receiver.set(GST_STATE_PLAYING);
    std::uint64_t number = 0;
    const auto send = [&](std::uint32_t flags)
    {
        Buffer data(kit::MediaHeadBytes + 1);
        kit::writeMediaHead({flags, 0, {}, ++number}, data.data());
        sender.send(miscUtils::getMonotonicSysclockTime(), 1, data);
    };
    send(0);
    ASSERT_TRUE(receiver.pull());
    receiver.set(GST_STATE_PAUSED);
    receiver.set(GST_STATE_PLAYING);
    EXPECT_TRUE(waitFor(
        [&]
        {
            send(MediaHead::DeltaUnit);
            return receiver.getCount("src", "reconnects") > 0;
        }));
    EXPECT_EQ(receiver.getCount("src", "stalls"), 0U);
    send(0);
    const auto received = receiver.pull();
    ASSERT_TRUE(received);
    EXPECT_EQ(received->flags & GST_BUFFER_FLAG_DELTA_UNIT, 0U);
}

// Receivers may still read the first one.
TEST_F(ElementsMediaTest, FrameThatIsSentTwiceIsCopied)
{
    const Pipeline receiver(makeReceiver());
    receiver.set(GST_STATE_PLAYING);
    const Pipeline sender(makeInput("protocol=pipeline"));
    setCaps(sender, "video/x-raw,format=GRAY8,width=256,height=256,framerate=30/1");
    sender.set(GST_STATE_PLAYING);
    const std::string data = makeData(65'536, 1);
    push(sender, makeBuffer(data));
    ASSERT_TRUE(receiver.pull());
    GstPad* const pad = gst_element_get_static_pad(sender.find("in"), "src");
    GstQuery* const query = gst_query_new_allocation(nullptr, FALSE);
    GstAllocator* allocator = nullptr;
    ASSERT_TRUE(gst_pad_peer_query(pad, query));
    gst_query_parse_nth_allocation_param(query, 0, &allocator, nullptr);
    GstBuffer* const buffer = gst_buffer_new_allocate(allocator, data.size(), nullptr);
    gst_buffer_fill(buffer, 0, data.data(), data.size());
    GstMapInfo map;
    for (std::uint64_t number = 2; number < 4; ++number)
    {
        push(sender, gst_buffer_ref(buffer));
        EXPECT_TRUE(receiver.pull()->data == data);
        ASSERT_TRUE(gst_buffer_map(buffer, &map, GST_MAP_READ));
        const auto sent =
            kit::parseMediaFrame({map.data - kit::MediaHeadBytes, kit::MediaHeadBytes});
        gst_buffer_unmap(buffer, &map);
        EXPECT_EQ(sent->head.number, 2U);
    }
    gst_buffer_unref(buffer);
    gst_object_unref(allocator);
    gst_query_unref(query);
    gst_object_unref(pad);
}

TEST_F(ElementsMediaTest, OnlyPlainCapsAreAccepted)
{
    std::string nested = "1";
    for (int i = 0; i < 10'000; ++i)
        nested = "<" + nested + ">";
    std::string fields;
    for (int i = 0; i < 65; ++i)
        fields += ", f" + std::to_string(i) + "=(int)1";
    const std::string picture = "video/x-raw, format=(string)";
    const std::string sound = "audio/x-raw, layout=(string)interleaved, "
                              "channel-mask=(bitmask)0x0000000000000000, format=(string)";
    const std::pair<std::string, bool> rows[] = {
        {"video/x-raw, format=(string)I420, width=(int)64, height=(int)64, framerate=(fraction)0/1",
         true},
        {"a/b", true},
        {"a/b(memory:SystemMemory), x=(int)1", true},
        {"a/b, x=(string)\"\\303\\274 \\\"\"", true},
        {"a/b, x=(buffer)<  >, y=(double)-1.5e-7, z=(gint64)-9", true},
        {"", false},
        {"ANY", false},
        {"EMPTY", false},
        {std::string("a/b\0", 4), false},
        {"a/b; c/d", false},
        {"a/b(memory:Own), x=(int)1", false},
        {"a/b, x=(int)[ 1, 2 ]", false},
        {"a/b, x=(int){ 1, 2 }", false},
        {"a/b, x=1", false},
        {"a/b, x=(int)", false},
        {"a/b, x=(int)99999999999", false},
        {"a/b, x=(fraction)1/0", false},
        {"a/b, x=(fraction)-2147483648/1", false},
        {"a/b, x=(fraction)-9223372036854775808/1", false},
        {"a/b, x=(double)< 1, 1-2 >", false}, // GStreamer leaks what it fails to parse
        {"a/b, x=(string)< a, \"\\1\" >", false},
        {"a/b, x=(string)NULL", false},
        {"a/b, x=(string)\"\\377\"", false},
        {"a/b, x=(string)\"open", false},
        {"a/b, x=(buffer)123", false},
        {"a/b, codec_data=(buffer)12, streamheader=(buffer)< 12 >", true},
        {"a/b, codec_data=(int)1", false}, // some elements would crash
        {"a/b, streamheader=(int)< 1 >", false},
        {"a/b, streamheader=(buffer)<  >", false},
        {"a/b, x=(GstCaps)\"a/b\"", false},
        {"a/b, x=(structure)\"a/b\"", false},
        {"a/b, x=(taglist)\"a\"", false},
        {"a/b, x=(type)gint", false},
        {"a/b, x=(sample)\"AAAA:None:None:None\"", false},
        {"a/b, x=(GstMessageType)1", false},
        {"a/b, x=(int)" + nested, false},
        {"a/b" + fields, false},
        {"a/" + std::string(62, 'b'), false},
        {"a/b, x=(string)" + std::string(kit::MaxMediaCapsBytes, 'x'), false},
        {"video/x-raw, format=(string)I420, width=(int)8", false},
        {"audio/x-raw, format=(string)S16LE, rate=(int)1, channels=(int)-1", false},
        {picture + "I420, width=(int)65536, height=(int)1", false},
        {picture + "I420, width=(int)-16, height=(int)16", false},
        {picture + "I420, width=(int)16, height=(int)0", false},
        {picture + "ENCODED, width=(int)16, height=(int)16", false},
        {picture + "I420, width=(int)16, height=(int)16, views=(int)-1", false},
        {picture + "I420, width=(int)16, height=(int)16, multiview-mode=(string)monm", false},
        {picture + "I420, width=(int)16, height=(int)16, multiview-mode=(string)none", false},
        {picture + "I420, width=(int)16, height=(int)16, framerate=(fraction)-1/1", false},
        {picture + "I420, width=(int)16, height=(int)16, pixel-aspect-ratio=(fraction)0/1", false},
        {sound + "S16LE, rate=(int)8000, channels=(int)63", true},
        {sound + "S16LE, rate=(int)8000, channels=(int)64", false},
        {sound + "S16LE, rate=(int)8000, channels=(int)0", false},
        {sound + "S16LE, rate=(int)8000, channels=(int)-64", false},
        {sound + "S32LE, rate=(int)8000, channels=(int)134217728", false},
        {"audio/x-raw, layout=(string)interleaved, format=(string)S16LE, rate=(int)1, "
         "channels=(int)2, channel-mask=(bitmask)0x7",
         false},
        {sound + "S16LE, rate=(int)0, channels=(int)1", false},
        {sound + "ENCODED, rate=(int)8000, channels=(int)1", false},
    };
    for (const auto& [text, isAccepted] : rows)
        EXPECT_EQ(gst::MediaFormat::parse(text).has_value(), isAccepted) << text.substr(0, 200);

#ifndef __SANITIZE_ADDRESS__ // GLib loses the former tables of a growing number of names
    int numNew = 0;
    while (numNew < 16'384 && gst::MediaFormat::parse("new/" + std::to_string(numNew)))
        ++numNew;
    EXPECT_GT(numNew, 16'000);
    EXPECT_LT(numNew, 16'384) << "GStreamer keeps them";
    EXPECT_TRUE(gst::MediaFormat::parse("new/0, x=(int)1"));
#endif
}

TEST_F(ElementsMediaTest, WhatCannotBePlayedIsReportedAndLeft)
{
    const Pipeline receiver(makeReceiver("! capsfilter caps=a/b"));
    receiver.set(GST_STATE_PLAYING);
    for (const char* const text : {"a/b, x=(GstCaps)\"a/b\"", "c/d"})
    {
        const UncheckedSender sender(m_name, std::string(text));
        EXPECT_TRUE(receiver.waitForMessage(GST_MESSAGE_WARNING)) << text;
    }
    const Pipeline sender(makeInput(""));
    GstPad* const pad = gst_element_get_static_pad(sender.find("sink"), "sink");
    GstCaps* const own = gst_caps_from_string("video/x-raw(memory:Own)");
    EXPECT_FALSE(gst_pad_query_accept_caps(pad, own));
    gst_caps_unref(own);
    const std::string pcm = "audio/x-raw, format=(string)U8, rate=(int)1, channels=(int)1, layout=";
    const std::pair<std::string, std::string> rows[] = {
        {"video/x-raw(memory:Own); a/b", "a/b"},
        {pcm + "(string){non-interleaved,interleaved}; a/b", pcm + "(string)interleaved; a/b"},
        {pcm + "(string)non-interleaved", pcm + "(string)non-interleaved"},
    };
    for (const auto& [filter, expected] : rows)
    {
        GstCaps* const wanted = gst_caps_from_string(filter.c_str());
        GstCaps* const offered = gst_caps_from_string(expected.c_str());
        GstCaps* const caps = gst_pad_query_caps(pad, wanted);
        EXPECT_TRUE(gst_caps_is_strictly_equal(caps, offered)) << gst::toText(caps);
        gst_caps_unref(caps);
        gst_caps_unref(offered);
        gst_caps_unref(wanted);
    }
    gst_object_unref(pad);
    setCaps(sender, "a/b, x=(taglist)\"taglist\\,\\ title\\=a\\;\"");
    sender.set(GST_STATE_PLAYING);
    push(sender, makeBuffer("a"));
    EXPECT_TRUE(sender.waitForMessage(GST_MESSAGE_ERROR));

    const Pipeline next(makeInput(""));
    setCaps(next, "a/b");
    next.set(GST_STATE_PLAYING);
    push(next, makeBuffer("a"));
    const auto received = receiver.pull();
    ASSERT_TRUE(received);
    EXPECT_EQ(received->data, "a");
}

} // unnamed namespace

} // namespace vlx::testing
