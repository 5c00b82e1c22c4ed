// The elements under floods, faulty streams and hasty applications.

#include <cstdlib>
#include <random>

#include <gst/check/gstharness.h>

#include <miscUtils/MiscUtils.hpp>
#include <vlxkit/Discovery.hpp>

#include "gst/ElementsFixture.hpp"
#include "support/RecordedReceiver.hpp"

namespace vlx::testing
{

namespace
{

using namespace std::chrono_literals;

class ElementsFaultsTest : public ElementsTest
{
};

TEST_F(ElementsFaultsTest, FaultyFramesHarmNoPipeline)
{
    struct Row
    {
        int due; // milliseconds
        int duration;
        std::size_t bytes;
        std::size_t expectedBytes; // 0: dropped
        bool discont = false;
    };
    const Row rows[] = {
        {0, 10, 0, 0},
        {10, 10, 1920, 1920, true},
        {20, 10, 0, 0},
        {30, 10, 1920, 1920, true}, // something is missing
        {40, 0, 0, 0},
        {40, 10, 1921, 1920}, // nothing is
        {50, 0, 3, 0},
        {50, 10, 1923, 1920},
        {60, 0, 4, 4},
        {65, 10, 1920, 1920, true}, // a gap
        {65, 10, 1920, 1920, true}, // an overlap
        {75, 10, 1920, 1920},
        {1000, 10, 1920, 1920, true},
    };
    const Pipeline receiver(
        "vlxsrc name=src socket-name=" + m_name +
        " ! tee name=t ! queue ! appsink name=out "
        "sync=false t. ! queue ! audioconvert ! audio/x-raw,format=F32LE ! fakesink sync=false");
    UncheckedSender sender(m_name);
    receiver.set(GST_STATE_PLAYING);
    const TimeValue start = miscUtils::getMonotonicSysclockTime();
    std::size_t dropped = 0;
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.due);
        const auto toNs = [](int ms) { return static_cast<TimeValue>(ms * Millisecond); };
        sender.send(start + toNs(row.due), toNs(row.duration), row.bytes);
        if (row.expectedBytes == 0)
        {
            ++dropped;
            continue;
        }
        const auto frame = receiver.pull();
        ASSERT_TRUE(frame);
        EXPECT_EQ(frame->data.size(), row.expectedBytes);
        EXPECT_EQ(frame->memoryBytes, row.bytes) << "not the received frame itself";
        EXPECT_EQ(frame->discont, row.discont);
        EXPECT_EQ(receiver.getCount("src", "dropped"), dropped);
    }
}

TEST_F(ElementsFaultsTest, TooManyChannelsAreAnError)
{
    for (const std::uint32_t channels : {63U, 64U, 255U})
    {
        SCOPED_TRACE(channels);
        const Pipeline receiver(
            "vlxsrc socket-name=" + m_name +
            " ! audioconvert ! audio/x-raw,format=F32LE ! appsink name=out sync=false");
        UncheckedSender sender(m_name, channels);
        receiver.set(GST_STATE_PLAYING);
        sender.send(miscUtils::getMonotonicSysclockTime(), 0, std::size_t{2} * channels);
        if (channels > 63)
            EXPECT_TRUE(receiver.waitForMessage(GST_MESSAGE_ERROR));
        else
            EXPECT_TRUE(receiver.pull());
    }
}

// The first frames block the pipeline; the rest waits, as far as the limits permit.
TEST_F(ElementsFaultsTest, WaitingFramesAreBounded)
{
    struct Row
    {
        const char* limits;
        std::chrono::milliseconds pause; // between frames
        std::uint64_t leastDropped;
        std::uint64_t mostDropped;
    };
    const Row rows[] = {
        {"max-queue-time=0 max-queue-frames=10", 0ms, 7, 9},
        {"max-queue-time=0 max-queue-bytes=400", 0ms, 7, 9},
        {"max-queue-time=0 max-queue-frames=0 max-queue-bytes=0", 0ms, 0, 0},
        {"max-queue-time=50000000", 20ms, 5, 18},
    };
    constexpr std::uint64_t NumFrames = 20;
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.limits);
        const Pipeline receiver(makeReceiver(row.limits) + " max-buffers=1");
        UncheckedSender sender(m_name);
        receiver.set(GST_STATE_PLAYING);
        const TimeValue begin = miscUtils::getMonotonicSysclockTime();
        int disconts = 0;
        for (std::uint64_t frame = 0; frame < NumFrames; ++frame)
        {
            sender.send(begin + frame, 1, 40);
            if (frame == 0) // taken, so that no hole can begin with it
                disconts += receiver.pull()->discont ? 1 : 0;
            std::this_thread::sleep_for(row.pause);
        }
        const auto count = [&](const char* field) { return receiver.getCount("src", field); };
        EXPECT_TRUE(waitFor([&] { return count("frames") == NumFrames; }));
        EXPECT_GE(count("dropped"), row.leastDropped);
        EXPECT_LE(count("dropped"), row.mostDropped);
        g_object_set(receiver.find("src"), "max-queue-frames", guint64{1}, nullptr);
        const std::uint64_t dropped = count("dropped");
        EXPECT_GE(dropped, NumFrames - 4) << "not changed while running";
        for (auto left = NumFrames - 1 - dropped; left > 0; --left)
            disconts += receiver.pull()->discont ? 1 : 0;
        // The first frame, and those behind holes; one may have been taken while a hole grew.
        EXPECT_GE(disconts, 2);
        EXPECT_LE(disconts, 3);
    }
}

// An end of stream that was not delivered, and the caps, are those of one run.
TEST_F(ElementsFaultsTest, RestartForgetsTheFormerStream)
{
    const Pipeline receiver(makeReceiver("eos-on-disconnect=true") + " max-buffers=1");
    for (int run = 0; run < 2; ++run)
    {
        {
            UncheckedSender sender(m_name);
            receiver.set(GST_STATE_PLAYING);
            for (TimeValue frame = 0; frame < 5; ++frame)
                sender.send(miscUtils::getMonotonicSysclockTime(), 1, 40);
            EXPECT_TRUE(waitFor([&] { return receiver.getCount("src", "frames") == 5; }));
            const auto frame = receiver.pull();
            ASSERT_TRUE(frame) << run;
            EXPECT_THAT(frame->caps, ::testing::HasSubstr("S16LE"));
            EXPECT_TRUE(frame->discont);
        }
        EXPECT_TRUE(receiver.waitForMessage(GST_MESSAGE_ELEMENT, "vlx-lost"));
        receiver.set(GST_STATE_NULL); // in READY appsink keeps what it has
    }
}

// Without timestamps of their own, buffers follow one another, but not those of the run before.
TEST_F(ElementsFaultsTest, RestartedSinkStampsAnew)
{
    constexpr TimeValue HourNs = 3600 * TimeValue{1'000'000'000}; // of a frame
    RecordedReceiver receiver;
    ASSERT_TRUE(receiver.start(m_name));
    const Pipeline sender(
        "fakesrc sizetype=fixed sizemax=3600 ! "
        "audio/x-raw,format=S8,rate=1,channels=1,layout=interleaved ! vlxsink socket-name=" +
        m_name);
    for (std::size_t run = 1; run <= 2; ++run)
    {
        sender.set(GST_STATE_PLAYING);
        ASSERT_TRUE(receiver.waitForEvent("frame", run));
        sender.set(GST_STATE_NULL);
    }
    const auto frames = receiver.getFrames();
    EXPECT_EQ(frames[0].duration, HourNs);
    EXPECT_LT(frames[1].timestamp, frames[0].timestamp + HourNs / 2);
}

TEST_F(ElementsFaultsTest, StopIsHeardUnderAFlood)
{
    constexpr int NumTries = 10; // a busy machine may hold a stop up by itself
    const Pipeline receiver(
        "vlxsrc name=src realtime-priority=50 socket-name=" + m_name +
        " ! appsink name=out sync=false max-buffers=1");
    for (const GstState state : {GST_STATE_PAUSED, GST_STATE_NULL})
    {
        bool wasPrompt = false;
        for (int i = 0; i < NumTries && !wasPrompt; ++i)
        {
            UncheckedSender sender(m_name);
            receiver.set(GST_STATE_PLAYING);
            std::atomic<bool> flooding = true;
            std::thread flood(
                [&]
                {
                    while (flooding)
                        sender.send(miscUtils::getMonotonicSysclockTime(), 1, 4);
                });
            EXPECT_TRUE(waitFor([&] { return receiver.getCount("src", "dropped") > 1000; }));
            const auto start = std::chrono::steady_clock::now();
            receiver.set(state);
            wasPrompt = std::chrono::steady_clock::now() - start < 500ms;
            receiver.set(GST_STATE_NULL);
            flooding = false;
            sender.stop();
            flood.join();
        }
        EXPECT_TRUE(wasPrompt) << state;
    }
}

// Each round brings another order of state change, preroll and render. VLX_HASTY_ROUNDS: how many.
TEST_F(ElementsFaultsTest, SinkSurvivesHastyPausesAndSeeks)
{
    const unsigned int seed = std::random_device()();
    std::mt19937 random(seed);
    const auto draw = [&random](unsigned int limit) { return static_cast<int>(random() % limit); };
    const char* const wanted = std::getenv("VLX_HASTY_ROUNDS");
    const int numRounds = wanted != nullptr ? std::atoi(wanted) : 120;
    const Pipeline receiver(makeReceiver() + " drop=true max-buffers=1");
    receiver.set(GST_STATE_PLAYING);
    // Without sync the sink waits in render, with it mostly before.
    const char* const audio = "audiotestsrc samplesperbuffer=480 ! audio/x-raw,rate=48000";
    const char* const video = "videotestsrc ! video/x-raw,width=160,height=120,framerate=100/1";
    const std::pair<const char*, const char*> rows[] = {
        {audio, "sync=false wait-for-connection=false shared-memory=always"},
        {audio, "wait-for-connection=false"},
        {audio, "sync=false"},
        {audio, ""},
        {video, "sync=false"},
        {video, ""}};
    for (const auto& [source, properties] : rows)
    {
        SCOPED_TRACE(std::to_string(seed) + " " + source + " " + properties);
        const Pipeline sender(
            source + (" ! vlxsink name=sink socket-name=" + m_name) + " " + properties);
        sender.reach(GST_STATE_PLAYING);
        for (int round = 0; round < numRounds / 6; ++round)
        {
            sender.set(GST_STATE_PAUSED);
            std::this_thread::sleep_for(std::chrono::milliseconds(draw(20)) * draw(2));
            if (draw(3) == 0)
                gst_element_seek_simple(
                    sender.get(), GST_FORMAT_TIME, GST_SEEK_FLAG_FLUSH, draw(100) * Millisecond);
            if (draw(3) == 0)
                sender.reach(GST_STATE_PAUSED);
            sender.set(GST_STATE_PLAYING);
            std::this_thread::sleep_for(std::chrono::milliseconds(draw(20)) * draw(2));
            const auto before = sender.getCount("sink", "frames");
            ASSERT_TRUE(waitFor([&] { return sender.getCount("sink", "frames") > before; }))
                << round;
        }
    }
}

TEST_F(ElementsFaultsTest, StateCyclesLeaveNothing)
{
    const Pipeline receiver(makeReceiver());
    const Pipeline sender(makeSender("wait-for-connection=false shared-memory=always"));
    std::size_t threads = 0;
    std::size_t descriptors = 0;
    for (int cycle = 0; cycle < 50; ++cycle)
    {
        receiver.set(GST_STATE_PLAYING);
        sender.set(GST_STATE_PLAYING);
        if (cycle % 3 == 0)
        {
            ASSERT_TRUE(receiver.pull()) << cycle;
        }
        sender.set(cycle % 2 == 0 ? GST_STATE_NULL : GST_STATE_READY);
        receiver.set(cycle % 2 == 0 ? GST_STATE_READY : GST_STATE_NULL);
        EXPECT_TRUE(std::filesystem::is_empty(m_directory)) << cycle;
        if (cycle == 9) // what GStreamer and log4cplus keep is there by now
        {
            threads = countEntries("/proc/self/task");
            descriptors = countEntries("/proc/self/fd");
        }
    }
    EXPECT_TRUE(waitFor([&] { return countEntries("/proc/self/task") <= threads; }));
    EXPECT_TRUE(waitFor([&] { return countEntries("/proc/self/fd") <= descriptors; }));
}

// What the library needs for a stop that nobody hurries along is five seconds.
constexpr auto PromptStopLimit = 2s;

// Stopping, pausing and flushing free whatever waits.
TEST_F(ElementsFaultsTest, WaitingEndsWhenItIsNotWantedAnyMore)
{
    const auto expectPromptStop = [](const Pipeline& pipeline, GstState state)
    {
        const auto start = std::chrono::steady_clock::now();
        pipeline.set(state);
        EXPECT_LT(std::chrono::steady_clock::now() - start, PromptStopLimit) << state;
    };
    for (const char* properties : {"protocol=pubsub", "protocol=pipeline"})
    {
        SCOPED_TRACE(properties);
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
            expectPromptStop(sender, state);
        }
    }
    {
        const Pipeline sender("audiotestsrc ! vlxsink socket-name=" + m_name);
        sender.set(GST_STATE_PAUSED);
        EXPECT_TRUE(waitFor([this] { return kit::isSenderPresent(m_name); }));
        const auto flags = static_cast<GstSeekFlags>(GST_SEEK_FLAG_FLUSH);
        EXPECT_TRUE(gst_element_seek_simple(sender.get(), GST_FORMAT_TIME, flags, 0));
        expectPromptStop(sender, GST_STATE_NULL);
    }
    const Pipeline receiver(makeReceiver());
    gst_element_send_event(receiver.find("src"), gst_event_new_flush_start()); // not started yet
    gst_element_send_event(receiver.find("src"), gst_event_new_flush_stop(TRUE));
    receiver.set(GST_STATE_PLAYING);
    expectPromptStop(receiver, GST_STATE_NULL);
}

TEST_F(ElementsFaultsTest, FlushFreesABlockedSendAndTheStreamGoesOn)
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

} // namespace

} // namespace vlx::testing
