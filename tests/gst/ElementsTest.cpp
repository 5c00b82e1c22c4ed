// The elements in pipelines of this process, against pipelines of this and of other processes.

#include <gst/check/gstharness.h>
#include <gst/net/gstnet.h>
#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include <audioUtils/PcmFormat.hpp>

#include "gst/ElementsFixture.hpp"
#include "support/RawSender.hpp"

namespace vlx::testing
{

namespace
{

using namespace std::chrono_literals;

// Rank NONE: a source that waits for a sender must not be chosen before a sound card.
TEST_F(ElementsTest, RankAndDefaultsAreTheDocumentedOnes)
{
    const std::pair<const char*, std::string> rows[] = {
        {"vlxsink", "socket-name= realtime-priority=0 alternative-socket-name= protocol=pubsub "
                    "socket-mode=owner clock=auto clock-address= clock-port=0 serve-clock=false "
                    "wait-for-connection=true shared-memory=media "},
        {"vlxsrc",
         "socket-name= realtime-priority=0 sender-user= timeout=0 eos-on-disconnect=false "
         "max-queue-time=1000000000 max-queue-bytes=67108864 max-queue-frames=10000 "
         "stall-timeout=2000000000 latency=20000000 provide-clock=true "
         "wait-for-keyframe=true "}};
    for (const auto& [name, defaults] : rows)
    {
        GstElement* const element = gst_element_factory_make(name, nullptr);
        ASSERT_NE(element, nullptr);
        guint count = 0;
        GParamSpec** const properties =
            g_object_class_list_properties(G_OBJECT_GET_CLASS(element), &count);
        std::string found;
        for (guint i = 0; i < count; ++i)
        {
            if (properties[i]->owner_type != G_OBJECT_TYPE(element) ||
                (properties[i]->flags & G_PARAM_WRITABLE) == 0)
                continue;
            GValue value = G_VALUE_INIT;
            g_object_get_property(G_OBJECT(element), properties[i]->name, &value);
            gchar* const text = G_VALUE_HOLDS_STRING(&value) ? g_value_dup_string(&value)
                                                             : gst_value_serialize(&value);
            found += std::string(properties[i]->name) + "=" + text + " ";
            g_free(text);
            g_value_unset(&value);
        }
        EXPECT_EQ(found, defaults);
        const auto rank =
            gst_plugin_feature_get_rank(GST_PLUGIN_FEATURE(gst_element_get_factory(element)));
        EXPECT_EQ(rank, static_cast<guint>(GST_RANK_NONE));
        g_free(properties);
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
        const auto setIn = [element](GstState state)
        {
            gst_element_set_state(element, state);
            return gst_uri_handler_set_uri(GST_URI_HANDLER(element), "vlx://kitchen", nullptr);
        };
        EXPECT_TRUE(setIn(GST_STATE_READY));
        EXPECT_FALSE(setIn(GST_STATE_PAUSED));
        EXPECT_TRUE(setIn(GST_STATE_NULL));
        g_free(uri);
        g_free(name);
        gst_object_unref(element);
    }
}

// It may hold what another process has announced.
TEST_F(ElementsTest, LibraryLogIsPrintable)
{
    log4cplus::Logger logger = log4cplus::Logger::getInstance("Vellox");
    logger.removeAllAppenders();
    log4cplus::Logger::getRoot().removeAllAppenders();
    std::string log;
    gst_debug_set_active(TRUE);
    gst_debug_remove_log_function(gst_debug_log_default);
    const GstLogFunction collect =
        [](GstDebugCategory* /*category*/, GstDebugLevel /*level*/, const gchar* /*file*/,
           const gchar* /*function*/, gint /*line*/, GObject* /*object*/, GstDebugMessage* message,
           gpointer text) { *static_cast<std::string*>(text) += gst_debug_message_get(message); };
    gst_debug_add_log_function(collect, &log, nullptr);
    gst_debug_set_threshold_from_string("vlx:ERROR", TRUE);
    const Pipeline receiver(makeReceiver());
    receiver.reach(GST_STATE_PAUSED);
    LOG4CPLUS_ERROR(logger, "announced: \x1b[2J");
    EXPECT_EQ(log, "announced: \\x1b[2J");
    gst_debug_remove_log_function_by_data(&log);
}

TEST_F(ElementsTest, PropertiesTakeEffectFromReady)
{
    const Pipeline sender("audiotestsrc is-live=true samplesperbuffer=480 ! vlxsink name=sink "
                          "wait-for-connection=false");
    const Pipeline receiver("vlxsrc name=src ! appsink name=out sync=false");
    for (const char* name : {"first", "second"})
    {
        const std::string stream = m_name + name;
        for (const Pipeline* pipeline : {&sender, &receiver})
            pipeline->reach(GST_STATE_READY);
        EXPECT_TRUE(std::filesystem::is_empty(m_directory)) << "the former stream is still open";
        g_object_set(sender.find("sink"), "socket-name", stream.c_str(), nullptr);
        g_object_set(receiver.find("src"), "socket-name", stream.c_str(), nullptr);
        sender.set(GST_STATE_PLAYING);
        receiver.set(GST_STATE_PLAYING);
        EXPECT_TRUE(receiver.pull()) << name;
    }
}

TEST_F(ElementsTest, SenderOfAnotherUserIsNotJoined)
{
    const auto makeUser = [](uid_t user) { return "sender-user=" + std::to_string(user); };
    const Pipeline sender(makeSender("serve-clock=true wait-for-connection=false"));
    sender.set(GST_STATE_PLAYING);
    ASSERT_TRUE(waitFor([&] { return sender.getCount("sink", "sequences") > 0; }));

    const Pipeline same(makeReceiver(makeUser(::getuid())));
    same.set(GST_STATE_PLAYING);
    EXPECT_TRUE(same.pull());
    const Pipeline other(makeReceiver(makeUser(::getuid() + 1)));
    other.set(GST_STATE_PLAYING);
    EXPECT_TRUE(other.waitForMessage(GST_MESSAGE_WARNING));
    EXPECT_EQ(other.getCount("src", "frames"), 0U);
    const auto followsClock = [](const Pipeline& pipeline)
    { return GST_IS_NET_CLIENT_CLOCK(GST_ELEMENT_CLOCK(pipeline.get())) != FALSE; };
    EXPECT_TRUE(followsClock(same));
    EXPECT_FALSE(followsClock(other)) << "of an untrusted sender";
    const Pipeline unknown(makeReceiver("sender-user=no/such/user"));
    gst_element_set_state(unknown.get(), GST_STATE_PLAYING);
    EXPECT_TRUE(unknown.waitForMessage(GST_MESSAGE_ERROR));
}

// It learns the clock in PAUSED, and joins in PLAYING.
TEST_F(ElementsTest, SourceJoinsByOneConnection)
{
    const std::string directory = m_directory + "/VlxSender-raw001";
    std::filesystem::create_directory(directory);
    RawSender sender(
        m_name, NanomsgProtocol::PubSub, {}, "ipc://" + directory + "/nanomsgChannel.ipc");
    const Pipeline receiver(makeReceiver());
    std::thread serving(
        [&] { EXPECT_TRUE(sender.greet() && sender.sendOverSidechannel(makeSequenceInfo(1))); });
    receiver.reach(GST_STATE_PAUSED);
    serving.join();
    receiver.set(GST_STATE_PLAYING);
    ASSERT_TRUE(sender.joinMainChannel() && sender.sendOverMainChannel(makeFrame(1, 10)));
    EXPECT_TRUE(receiver.pull());
    EXPECT_FALSE(sender.getListener().accept(0ms).isOpen()) << "another connection";
}

// PubSub loses what comes all at once.
TEST_F(ElementsTest, FramesAreSpreadWithoutSync)
{
    const Pipeline receiver(makeReceiver("eos-on-disconnect=true"));
    const Pipeline sender(
        "audiotestsrc num-buffers=50 samplesperbuffer=480 ! audio/x-raw,rate=48000 ! vlxsink "
        "name=sink sync=false socket-name=" +
        m_name);
    receiver.set(GST_STATE_PLAYING);
    sender.reach(GST_STATE_PAUSED);
    const auto start = std::chrono::steady_clock::now();
    sender.set(GST_STATE_PLAYING);
    EXPECT_TRUE(sender.waitForMessage(GST_MESSAGE_EOS));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 49 * 5ms);
    EXPECT_EQ(sender.getCount("sink", "frames"), 50U);
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
    gst_structure_free(stats);
    gst_harness_teardown(sender);
}

TEST_F(ElementsTest, PauseLeavesAGapAndNothingStale)
{
    const Pipeline receiver(makeReceiver());
    const Pipeline sender(makeSender(""));
    receiver.set(GST_STATE_PLAYING);
    sender.set(GST_STATE_PLAYING);
    ASSERT_TRUE(receiver.pull());
    const auto countFrames = [&] { return receiver.getCount("src", "frames"); };
    receiver.reach(GST_STATE_PAUSED);
    const std::uint64_t count = countFrames();
    ASSERT_TRUE(waitFor([&] { return countFrames() > count + 20; })) << "stale ones";
    receiver.set(GST_STATE_PLAYING);
    bool hasGap = false;
    for (int i = 0; i < 50 && !hasGap; ++i)
        hasGap = receiver.pull()->discont;
    EXPECT_TRUE(hasGap);
    EXPECT_EQ(receiver.getCount("src", "dropped"), 0U) << "nothing was lost to a busy pipeline";
}

TEST_F(ElementsTest, PauseOfASinkThatWaitsForItsReceiverKeepsTheStream)
{
    const auto listStreams = [this]
    {
        std::set<std::string> paths;
        for (const auto& entry : std::filesystem::directory_iterator(m_directory))
        {
            // A bell may just be ringing.
            if (entry.path().filename().string().starts_with("VlxSender-"))
                paths.insert(entry.path().string());
        }
        return paths;
    };
    const Pipeline sender(makeSender("protocol=pipeline wait-for-connection=false"));
    sender.set(GST_STATE_PLAYING);
    ASSERT_TRUE(waitFor([&] { return sender.getCount("sink", "sequences") == 1; }));
    const auto before = listStreams();
    for (int i = 0; i < 3; ++i)
    {
        std::this_thread::sleep_for(30ms); // the first buffers wait for a receiver
        sender.reach(GST_STATE_PAUSED);
        sender.set(GST_STATE_PLAYING);
    }
    const Pipeline receiver(makeReceiver());
    receiver.set(GST_STATE_PLAYING);
    EXPECT_TRUE(receiver.pull());
    EXPECT_EQ(listStreams(), before);
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
    alone.set(GST_STATE_NULL);
    const Pipeline left(makeReceiver("timeout=1000000000"));
    {
        const UncheckedSender joined(m_name);
        left.set(GST_STATE_PLAYING);
        EXPECT_TRUE(left.waitForMessage(GST_MESSAGE_ELEMENT, "vlx-joined"));
    }
    EXPECT_TRUE(left.waitForMessage(GST_MESSAGE_ERROR));

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

} // namespace

} // namespace vlx::testing
