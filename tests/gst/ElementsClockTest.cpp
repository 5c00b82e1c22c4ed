// Timestamps, clocks and latency of the elements.

#include <gst/net/gstnet.h>

#include "gst/ElementsFixture.hpp"

namespace vlx::testing
{

namespace
{

// Lead of a clock over CLOCK_MONOTONIC, large enough to reveal a wrong sign or unit.
constexpr std::int64_t Ahead = 1000'000 * Millisecond;

// Of an estimate of a clock within this process, on a busy machine.
constexpr std::int64_t MaxError = 1 * Millisecond;
// Of a network clock's: half a round trip, which lasts as long as its threads wait for a processor.
constexpr std::int64_t MaxNetError = 500 * Millisecond;

class ElementsClockTest : public ElementsTest
{
};

void useClock(const Pipeline& pipeline, std::int64_t offset)
{
    auto* const clock =
        static_cast<GstClock*>(gst_object_ref_sink(g_object_new(GST_TYPE_SYSTEM_CLOCK, nullptr)));
    gst_clock_set_calibration(clock, 0, static_cast<GstClockTime>(offset), 1, 1);
    gst_pipeline_use_clock(GST_PIPELINE(pipeline.get()), clock);
    gst_object_unref(clock);
}

std::size_t countMessages(const Pipeline& pipeline, GstMessageType type)
{
    GstBus* const bus = gst_element_get_bus(pipeline.get());
    std::size_t count = 0;
    while (GstMessage* const message = gst_bus_pop_filtered(bus, type))
    {
        ++count;
        gst_message_unref(message);
    }
    gst_object_unref(bus);
    return count;
}

bool offersClock(const Pipeline& pipeline, const char* element)
{
    return GST_OBJECT_FLAG_IS_SET(
               pipeline.find(element), static_cast<guint32>(GST_ELEMENT_FLAG_PROVIDE_CLOCK)) !=
           FALSE;
}

TEST_F(ElementsClockTest, TimestampsAreExactOnTheSharedClock)
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

TEST_F(ElementsClockTest, TimestampsFollowAnyClock)
{
    const Pipeline reference(makeReceiver());
    const Pipeline shifted(makeReceiver());
    const Pipeline byArrival(makeReceiver("do-timestamp=true"));
    const Pipeline sender(makeSender("wait-for-connection=false"));
    useClock(shifted, Ahead);
    useClock(sender, 3 * Ahead);
    for (const Pipeline* pipeline : {&reference, &shifted, &byArrival, &sender})
        pipeline->set(GST_STATE_PLAYING);

    // More than a receiver waits that tries while the sender is just starting.
    constexpr std::size_t NumFrames = 100;
    const Frames atReference = pullFrames(reference, NumFrames);
    forEachCommonFrame(
        atReference, pullFrames(shifted, NumFrames),
        [](auto difference) { EXPECT_LT(std::abs(difference - Ahead), MaxError); });
    forEachCommonFrame(
        atReference, pullFrames(byArrival, NumFrames),
        [](auto difference)
        {
            EXPECT_GE(difference, 0) << "arrived before it was due";
            EXPECT_LT(difference, Ahead / 2);
        });
    for (const Pipeline* pipeline : {&reference, &shifted})
        EXPECT_EQ(countMessages(*pipeline, GST_MESSAGE_WARNING), 0U) << "stamps on no known clock";
}

// The sender's clock is far off CLOCK_MONOTONIC.
TEST_F(ElementsClockTest, NetClockKeepsSourcesInStep)
{
    const Pipeline sender(makeSender(
        "serve-clock=true clock-address=127.0.0.1 clock-port=0 wait-for-connection=false "
        "t. ! queue ! appsink name=out sync=false",
        48000, "tee name=t ! queue ! "));
    useClock(sender, Ahead);
    gst_pipeline_set_latency(GST_PIPELINE(sender.get()), 30 * GST_MSECOND);
    sender.set(GST_STATE_PLAYING);
    const Pipeline waiting(makeReceiver("provide-clock=false"));
    waiting.set(GST_STATE_PLAYING);
    ASSERT_TRUE(waiting.pull());
    EXPECT_FALSE(offersClock(waiting, "src"));

    // Now that the sender is there, its clock is provided.
    const Pipeline first(makeReceiver());
    const Pipeline second(makeReceiver());
    EXPECT_FALSE(offersClock(first, "src"));
    first.reach(GST_STATE_PAUSED);
    EXPECT_TRUE(offersClock(first, "src"));
    GstClock* const clock = gst_element_provide_clock(first.find("src"));
    ASSERT_TRUE(GST_IS_NET_CLIENT_CLOCK(clock));
    first.set(GST_STATE_PLAYING);
    second.set(GST_STATE_PLAYING);

    const Frames atFirst = pullFrames(first, 50);
    GstClock* const used = gst_element_get_clock(first.get());
    EXPECT_EQ(used, clock);
    gst_object_unref(used);
    forEachCommonFrame(
        atFirst, pullFrames(second, 20, &atFirst),
        [](auto difference) { EXPECT_EQ(difference, 0); });
    forEachCommonFrame(
        pullFrames(sender, 20, &atFirst), atFirst,
        [](auto difference) { EXPECT_EQ(difference, 30 * Millisecond); });
    // This one's pipeline runs on the system's clock.
    forEachCommonFrame(
        pullFrames(waiting, 20, &atFirst), atFirst,
        [](auto difference) { EXPECT_LT(std::abs(difference - Ahead), MaxNetError); });
    EXPECT_FALSE(waiting.getCount("src", "dropped"));

    gst_element_set_state(first.find("src"), GST_STATE_READY);
    EXPECT_EQ(countMessages(first, GST_MESSAGE_CLOCK_LOST), 1U);
    EXPECT_FALSE(offersClock(first, "src"));
    gst_object_unref(clock);
}

TEST_F(ElementsClockTest, LatencyIsReportedAtAChangeOnly)
{
    const Pipeline receiver(makeReceiver());
    receiver.reach(GST_STATE_READY);
    const GstClockTime values[] = {20'000'000, 30'000'000, 30'000'000, 20'000'000};
    for (const GstClockTime value : values)
        g_object_set(receiver.find("src"), "latency", value, nullptr);
    g_object_set(receiver.find("src"), "timeout", G_GUINT64_CONSTANT(1), nullptr);
    EXPECT_EQ(countMessages(receiver, GST_MESSAGE_LATENCY), 2U);
}

} // namespace

} // namespace vlx::testing
