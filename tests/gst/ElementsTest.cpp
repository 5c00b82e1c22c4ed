// The elements in pipelines of this process, against pipelines of this and of other processes.

#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>

#include <gst/check/gstharness.h>
#include <gst/net/gstnet.h>
#include <unistd.h>

#include <audioUtils/PcmFormat.hpp>

#include "gst/Pipeline.hpp"

namespace vlx::testing
{

namespace
{

using namespace std::chrono_literals;

constexpr std::int64_t Millisecond = 1'000'000;

// The delays of a sanitizer and of an emulator are part of what is measured.
#ifdef __SANITIZE_ADDRESS__
const int MaxClockErrorMs = 20;
#else
const int MaxClockErrorMs = std::getenv("VLX_EMULATED") != nullptr ? 20 : 1;
#endif

// What the library needs for a stop that nobody hurries along is five seconds.
constexpr auto PromptStopLimit = 2s;

/// Not the library's fixture: GStreamer keeps threads and descriptors of its own.
class ElementsTest : public ::testing::Test
{
protected:
    ElementsTest()
    {
        ::setenv("TMPDIR", ::mkdtemp(m_directory.data()), 1);
        gst_init(nullptr, nullptr);
    }

    ~ElementsTest() override
    {
        std::filesystem::remove_all(m_directory);
    }

    /// @return description of a sender of noise in real time
    std::string makeSender(const std::string& properties, int rate = 48000) const
    {
        return "audiotestsrc is-live=true wave=white-noise samplesperbuffer=" +
               std::to_string(rate / 100) +
               " ! audio/x-raw,format=S16LE,rate=" + std::to_string(rate) +
               ",channels=2 ! vlxsink name=sink socket-name=" + m_name + " " + properties;
    }

    std::string makeReceiver(const std::string& properties = {}) const
    {
        return "vlxsrc name=src socket-name=" + m_name + " " + properties +
               " ! appsink name=out sync=false";
    }

    std::string m_directory = "/tmp/vg-XXXXXX";
    const std::string m_name = "gst-test-" + std::to_string(::getpid());
};

std::size_t countEntries(const char* directory)
{
    const std::filesystem::directory_iterator entries(directory);
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

// Data of noise tells a frame from every other.
using Frames = std::map<std::string, Received>;

Frames pullFrames(const Pipeline& receiver, std::size_t count, const char* sink = "out")
{
    Frames frames;
    while (frames.size() < count)
    {
        const auto frame = receiver.pull(sink);
        if (!frame)
        {
            ADD_FAILURE() << "only " << frames.size() << " frames";
            break;
        }
        frames.emplace(frame->data, *frame);
    }
    return frames;
}

/// @param difference  of the due times of a frame that both have, the second less the first
void forEachCommonFrame(
    const Frames& first,
    const Frames& second,
    const std::function<void(std::int64_t difference)>& check)
{
    std::size_t common = 0;
    for (const auto& [data, frame] : first)
    {
        const auto same = second.find(data);
        if (same == second.end())
            continue;
        ++common;
        check(static_cast<std::int64_t>(same->second.due - frame.due));
    }
    EXPECT_GT(common, 0U);
}

TEST_F(ElementsTest, PropertiesHaveTheirDefaultsAndTakeValues)
{
    struct Row
    {
        const char* element;
        const char* property;
        const char* initial;
        const char* other;
    };
    const Row rows[] = {
        {"vlxsink", "socket-name", "", "kitchen"},
        {"vlxsink", "alternative-socket-name", "", "cellar"},
        {"vlxsink", "protocol", "pubsub", "pipeline"},
        {"vlxsink", "socket-mode", "owner", "all"},
        {"vlxsink", "realtime-priority", "0", "99"},
        {"vlxsink", "clock", "auto", "gstnetclock"},
        {"vlxsink", "clock-address", "", "127.0.0.1"},
        {"vlxsink", "clock-port", "0", "65535"},
        {"vlxsink", "serve-clock", "false", "true"},
        {"vlxsink", "wait-for-connection", "true", "false"},
        {"vlxsink", "sync", "true", "false"},
        {"vlxsrc", "socket-name", "", "kitchen"},
        {"vlxsrc", "timeout", "0", "9000000000"},
        {"vlxsrc", "eos-on-disconnect", "false", "true"},
        {"vlxsrc", "do-timestamp", "false", "true"},
        {"vlxsrc", "realtime-priority", "0", "10"},
        {"vlxsrc", "max-queue-time", "1000000000", "0"},
        {"vlxsrc", "stall-timeout", "2000000000", "0"},
        {"vlxsrc", "latency", "20000000", "5"},
        {"vlxsrc", "provide-clock", "true", "false"}};
    for (const Row& row : rows)
    {
        GstElement* const element = gst_element_factory_make(row.element, nullptr);
        ASSERT_NE(element, nullptr);
        const auto read = [&]
        {
            GValue value = G_VALUE_INIT;
            g_object_get_property(G_OBJECT(element), row.property, &value);
            gchar* const text = G_VALUE_HOLDS_STRING(&value) ? g_value_dup_string(&value)
                                                             : gst_value_serialize(&value);
            std::string result = text;
            g_free(text);
            g_value_unset(&value);
            return result;
        };
        EXPECT_EQ(read(), row.initial) << row.element << " " << row.property;
        gst_util_set_object_arg(G_OBJECT(element), row.property, row.other);
        EXPECT_EQ(read(), row.other) << row.element << " " << row.property;
        gst_object_unref(element);
    }
}

TEST_F(ElementsTest, UriNamesTheStream)
{
    for (const GstURIType type : {GST_URI_SINK, GST_URI_SRC})
    {
        GstElement* const element =
            gst_element_make_from_uri(type, "vlx://kitchen%20radio", nullptr, nullptr);
        ASSERT_NE(element, nullptr);
        gchar* name = nullptr;
        g_object_get(element, "socket-name", &name, nullptr);
        EXPECT_STREQ(name, "kitchen radio");
        gchar* const uri = gst_uri_handler_get_uri(GST_URI_HANDLER(element));
        EXPECT_STREQ(uri, "vlx://kitchen%20radio");
        EXPECT_FALSE(gst_uri_handler_set_uri(GST_URI_HANDLER(element), "vlx://", nullptr));
        g_free(uri);
        g_free(name);
        gst_object_unref(element);
    }
}

TEST_F(ElementsTest, EveryFormatArrivesSampleExact)
{
    for (std::size_t i = 0; i < audioUtils::NumPcmFormats; ++i)
    {
        const std::string format(audioUtils::toString(static_cast<audioUtils::PcmFormat>(i)));
        SCOPED_TRACE(format);
        const std::string caps =
            "format=" + format + ",rate=44100,channels=" + std::to_string(1 + i % 8);
        const std::string source =
            "audiotestsrc num-buffers=4 samplesperbuffer=441 ! audioconvert ! "
            "audio/x-raw," +
            caps;
        const Pipeline direct(source + " ! appsink name=out sync=false");
        const Pipeline receiver(makeReceiver("eos-on-disconnect=true"));
        // The other protocol drops what a busy machine cannot take at once.
        const Pipeline sender(source + " ! vlxsink protocol=pipeline socket-name=" + m_name);
        direct.set(GST_STATE_PLAYING);
        receiver.set(GST_STATE_PLAYING);
        sender.set(GST_STATE_PLAYING);
        EXPECT_TRUE(sender.waitForMessage(GST_MESSAGE_EOS));
        for (int frame = 0; frame < 4; ++frame)
        {
            const auto expected = direct.pull();
            const auto received = receiver.pull();
            ASSERT_TRUE(expected && received) << frame;
            EXPECT_EQ(received->data, expected->data);
            EXPECT_EQ(received->duration, expected->duration);
            EXPECT_EQ(received->discont, frame == 0);
            GstCaps* const fixed = gst_caps_from_string(received->caps.c_str());
            GstCaps* const wanted = gst_caps_from_string(("audio/x-raw," + caps).c_str());
            EXPECT_TRUE(gst_caps_is_subset(fixed, wanted)) << received->caps;
            gst_caps_unref(wanted);
            gst_caps_unref(fixed);
        }
        sender.set(GST_STATE_NULL);
        EXPECT_FALSE(receiver.pull()) << "something behind the end";
        EXPECT_TRUE(receiver.waitForMessage(GST_MESSAGE_EOS));
    }
}

TEST_F(ElementsTest, TimestampsAreExactOnTheSharedClock)
{
    const Pipeline first(makeReceiver());
    const Pipeline second(makeReceiver("stall-timeout=0"));
    first.set(GST_STATE_PLAYING);
    second.set(GST_STATE_PLAYING);
    const Pipeline sender(
        "audiotestsrc is-live=true wave=white-noise samplesperbuffer=480 ! "
        "audio/x-raw,format=S16LE,rate=48000,channels=1 ! tee name=t ! queue ! vlxsink "
        "socket-name=" +
        m_name + " t. ! queue ! appsink name=out sync=false");
    gst_pipeline_set_latency(GST_PIPELINE(sender.get()), 30 * GST_MSECOND);
    sender.set(GST_STATE_PLAYING);

    const Frames sent = pullFrames(sender, 60);
    const Frames atFirst = pullFrames(first, 40);
    const Frames atSecond = pullFrames(second, 40);
    forEachCommonFrame(
        sent, atFirst, [](auto difference) { EXPECT_EQ(difference, 30 * Millisecond); });
    forEachCommonFrame(atFirst, atSecond, [](auto difference) { EXPECT_EQ(difference, 0); });

    GstQuery* const query = gst_query_new_latency();
    gboolean isLive = FALSE;
    GstClockTime least = 0;
    GstClockTime most = 0;
    EXPECT_TRUE(gst_element_query(first.find("src"), query));
    gst_query_parse_latency(query, &isLive, &least, &most);
    gst_query_unref(query);
    EXPECT_TRUE(isLive);
    EXPECT_EQ(least, 20 * GST_MSECOND);
    EXPECT_EQ(most, 1020 * GST_MSECOND);
}

// A clock that is neither the system's nor a network's, and times of arrival.
TEST_F(ElementsTest, TimestampsFollowAnyClock)
{
    constexpr std::int64_t Ahead = 1000'000 * Millisecond;
    const auto useClock = [](const Pipeline& pipeline, std::int64_t offset)
    {
        auto* const clock = static_cast<GstClock*>(
            gst_object_ref_sink(g_object_new(GST_TYPE_SYSTEM_CLOCK, nullptr)));
        gst_clock_set_calibration(clock, 0, static_cast<GstClockTime>(offset), 1, 1);
        gst_pipeline_use_clock(GST_PIPELINE(pipeline.get()), clock);
        gst_object_unref(clock);
    };
    const Pipeline reference(makeReceiver());
    const Pipeline shifted(makeReceiver());
    const Pipeline byArrival(makeReceiver("do-timestamp=true"));
    const Pipeline sender(makeSender("wait-for-connection=false"));
    useClock(shifted, Ahead);
    useClock(sender, 3 * Ahead);
    for (const Pipeline* pipeline : {&reference, &shifted, &byArrival, &sender})
        pipeline->set(GST_STATE_PLAYING);

    const Frames atReference = pullFrames(reference, 30);
    forEachCommonFrame(
        atReference, pullFrames(shifted, 30),
        [](auto difference) { EXPECT_LT(std::abs(difference - Ahead), 1 * Millisecond); });
    forEachCommonFrame(
        atReference, pullFrames(byArrival, 30),
        [](auto difference) { EXPECT_GE(difference, 0) << "arrived before it was due"; });
}

TEST_F(ElementsTest, NetClockOfAnotherProcessKeepsSourcesInStep)
{
    const ChildPipeline sender(makeSender("serve-clock=true wait-for-connection=false"));
    const Pipeline waiting(makeReceiver("provide-clock=false"));
    waiting.set(GST_STATE_PLAYING);
    ASSERT_TRUE(waiting.pull());

    // Now that the sender is there, its clock is provided.
    const Pipeline first(makeReceiver());
    const Pipeline second(makeReceiver());
    first.set(GST_STATE_PLAYING);
    second.set(GST_STATE_PLAYING);
    ASSERT_TRUE(first.pull() && second.pull());
    GstClock* const clock = gst_element_get_clock(first.get());
    EXPECT_TRUE(GST_IS_NET_CLIENT_CLOCK(clock));
    const auto offset = static_cast<std::int64_t>(
        gst_clock_get_time(clock) -
        static_cast<GstClockTime>(g_get_monotonic_time()) * GST_USECOND);
    gst_object_unref(clock);

    const Frames atFirst = pullFrames(first, 50);
    forEachCommonFrame(
        atFirst, pullFrames(second, 50), [](auto difference) { EXPECT_EQ(difference, 0); });
    // This one's pipeline runs on the system's clock.
    forEachCommonFrame(
        atFirst, pullFrames(waiting, 120),
        [offset](auto difference)
        { EXPECT_LT(std::abs(difference + offset), MaxClockErrorMs * Millisecond); });
}

TEST_F(ElementsTest, ChangeOfCapsOpensASequence)
{
    const Pipeline receiver(makeReceiver());
    receiver.set(GST_STATE_PLAYING);
    GstHarness* const sender =
        gst_harness_new_parse(("vlxsink name=sink socket-name=" + m_name).c_str());
    gst_harness_use_systemclock(sender);
    std::size_t sequences = 0;
    for (const char* format : {"S16LE", "F32BE", "F32BE", "S24LE"})
    {
        const std::string caps =
            "audio/x-raw,layout=interleaved,rate=8000,channels=1,format=" + std::string(format);
        gst_harness_set_src_caps_str(sender, caps.c_str());
        GstBuffer* const buffer = gst_harness_create_buffer(sender, 960);
        GST_BUFFER_PTS(buffer) = sequences++ * 40 * GST_MSECOND;
        ASSERT_EQ(gst_harness_push(sender, buffer), GST_FLOW_OK);
        const auto received = receiver.pull();
        ASSERT_TRUE(received);
        EXPECT_THAT(received->caps, ::testing::HasSubstr(format));
    }
    GstStructure* stats = nullptr;
    gst_harness_get(sender, "vlxsink", "stats", &stats, nullptr);
    guint64 count = 0;
    gst_structure_get_uint64(stats, "sequences", &count);
    EXPECT_GE(count, 3U);
    EXPECT_FALSE(
        gst_pad_query_accept_caps(sender->srcpad, gst_caps_new_empty_simple("audio/x-alaw")));
    gst_structure_free(stats);
    gst_harness_teardown(sender);
}

// Stopping, pausing and flushing free whatever waits.
TEST_F(ElementsTest, WaitingEndsWhenItIsNotWantedAnyMore)
{
    const char* const sinks[] = {"protocol=pubsub", "protocol=pipeline"};
    for (const char* properties : sinks)
    {
        const Pipeline sender(makeSender(properties));
        for (const GstState state : {GST_STATE_PAUSED, GST_STATE_READY, GST_STATE_NULL})
        {
            sender.set(GST_STATE_PLAYING);
            EXPECT_TRUE(waitFor(
                [&]
                {
                    gint64 position = 0;
                    return gst_element_query_position(sender.get(), GST_FORMAT_TIME, &position) !=
                           FALSE;
                }));
            const auto start = std::chrono::steady_clock::now();
            sender.set(state);
            EXPECT_LT(std::chrono::steady_clock::now() - start, PromptStopLimit) << properties;
        }
    }
    const Pipeline receiver(makeReceiver());
    receiver.set(GST_STATE_PLAYING);
    const auto start = std::chrono::steady_clock::now();
    receiver.set(GST_STATE_NULL);
    EXPECT_LT(std::chrono::steady_clock::now() - start, PromptStopLimit);
}

TEST_F(ElementsTest, FlushFreesABlockedSendAndTheStreamGoesOn)
{
    for (const char* protocol : {"pubsub", "pipeline"})
    {
        GstHarness* const sender = gst_harness_new_parse(
            ("vlxsink socket-name=" + m_name + " protocol=" + protocol).c_str());
        gst_harness_use_systemclock(sender);
        gst_harness_set_src_caps_str(
            sender, "audio/x-raw,layout=interleaved,rate=8000,channels=1,format=S8");
        std::thread producing(
            [sender] {
                EXPECT_EQ(
                    gst_harness_push(sender, gst_harness_create_buffer(sender, 80)),
                    GST_FLOW_FLUSHING);
            });
        EXPECT_TRUE(waitFor([this] { return !std::filesystem::is_empty(m_directory); }));
        gst_harness_push_event(sender, gst_event_new_flush_start());
        producing.join();
        gst_harness_push_event(sender, gst_event_new_flush_stop(TRUE));
        GstSegment segment;
        gst_segment_init(&segment, GST_FORMAT_TIME);
        gst_harness_push_event(sender, gst_event_new_segment(&segment));

        const Pipeline receiver(makeReceiver());
        receiver.set(GST_STATE_PLAYING);
        EXPECT_EQ(gst_harness_push(sender, gst_harness_create_buffer(sender, 80)), GST_FLOW_OK);
        EXPECT_TRUE(receiver.pull()) << protocol;
        gst_harness_teardown(sender);
    }
}

TEST_F(ElementsTest, PauseLeavesAGapAndNothingStale)
{
    const Pipeline receiver(makeReceiver());
    const Pipeline sender(makeSender(""));
    receiver.set(GST_STATE_PLAYING);
    sender.set(GST_STATE_PLAYING);
    const auto before = receiver.pull();
    ASSERT_TRUE(before);
    receiver.reach(GST_STATE_PAUSED);
    receiver.set(GST_STATE_PLAYING);
    sender.reach(GST_STATE_PAUSED);
    sender.set(GST_STATE_PLAYING);
    EXPECT_TRUE(waitFor([&] { return receiver.pull()->discont; }));
}

TEST_F(ElementsTest, HundredStateCyclesLeaveNothing)
{
    const Pipeline receiver(makeReceiver());
    const Pipeline sender(makeSender("wait-for-connection=false"));
    std::size_t threads = 0;
    std::size_t descriptors = 0;
    for (int cycle = 0; cycle < 100; ++cycle)
    {
        receiver.set(GST_STATE_PLAYING);
        sender.set(GST_STATE_PLAYING);
        if (cycle % 3 == 0)
        {
            ASSERT_TRUE(receiver.pull()) << cycle;
        }
        sender.set(cycle % 2 == 0 ? GST_STATE_NULL : GST_STATE_READY);
        receiver.set(cycle % 2 == 0 ? GST_STATE_READY : GST_STATE_NULL);
        if (cycle == 9) // what GStreamer and log4cplus keep is there by now
        {
            threads = countEntries("/proc/self/task");
            descriptors = countEntries("/proc/self/fd");
        }
    }
    EXPECT_TRUE(waitFor([&] { return countEntries("/proc/self/task") <= threads; }));
    EXPECT_LE(countEntries("/proc/self/fd"), descriptors);
    sender.set(GST_STATE_NULL);
    EXPECT_TRUE(std::filesystem::is_empty(m_directory));
}

TEST_F(ElementsTest, SourceOutlivesAKilledSender)
{
    auto sender = std::make_unique<ChildPipeline>(makeSender(""));
    const Pipeline receiver(makeReceiver());
    receiver.set(GST_STATE_PLAYING);
    ASSERT_TRUE(receiver.pull());
    EXPECT_TRUE(receiver.waitForMessage(GST_MESSAGE_ELEMENT, "vlx-joined"));
    sender.reset(); // with SIGKILL
    EXPECT_TRUE(receiver.waitForMessage(GST_MESSAGE_ELEMENT, "vlx-lost"));
    sender = std::make_unique<ChildPipeline>(makeSender("", 44100));
    EXPECT_TRUE(receiver.waitForMessage(GST_MESSAGE_ELEMENT, "vlx-joined"));

    std::optional<Received> frame;
    while ((frame = receiver.pull()) && frame->caps.find("44100") == std::string::npos)
    {
    }
    ASSERT_TRUE(frame);
    EXPECT_TRUE(frame->discont);
    EXPECT_EQ(receiver.getCount("src", "reconnects"), 1U);
    EXPECT_FALSE(receiver.pull()->discont);
}

TEST_F(ElementsTest, SourceGivesUpWhenItIsTold)
{
    const Pipeline alone(makeReceiver("timeout=50000000"));
    alone.set(GST_STATE_PLAYING);
    EXPECT_TRUE(alone.waitForMessage(GST_MESSAGE_ERROR));

    for (const char* element : {"vlxsrc ! fakesink", "audiotestsrc ! vlxsink"})
    {
        const Pipeline nameless(element);
        gst_element_set_state(nameless.get(), GST_STATE_PLAYING);
        EXPECT_TRUE(nameless.waitForMessage(GST_MESSAGE_ERROR)) << element;
    }

    // A sender that waits holds the name already.
    const Pipeline sender(makeSender("wait-for-connection=false"));
    sender.set(GST_STATE_PLAYING);
    ASSERT_TRUE(waitFor([&] { return sender.getCount("sink", "sequences") > 0; }));
    const Pipeline rival(makeSender("wait-for-connection=false"));
    rival.set(GST_STATE_PLAYING);
    EXPECT_TRUE(rival.waitForMessage(GST_MESSAGE_ERROR));
}

TEST_F(ElementsTest, BusyPipelineLosesTheOldest)
{
    const Pipeline sender(makeSender("wait-for-connection=false"));
    const Pipeline receiver(
        "vlxsrc name=src max-queue-time=100000000 socket-name=" + m_name +
        " ! appsink name=out sync=false max-buffers=1");
    sender.set(GST_STATE_PLAYING);
    receiver.set(GST_STATE_PLAYING);
    ASSERT_TRUE(waitFor([&] { return receiver.getCount("src", "dropped") > 10; }));
    int disconts = 0;
    for (int frame = 0; frame < 10; ++frame)
        disconts += receiver.pull()->discont ? 1 : 0;
    EXPECT_GE(disconts, 2) << "the first frame, and the one behind the hole";
}

} // namespace

} // namespace vlx::testing
