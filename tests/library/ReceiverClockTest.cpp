// The receiver with a network clock, against a real provider.

#include <dlfcn.h>

#include <miscUtils/MiscUtils.hpp>
#include <vlx/VlxPayload.hpp>
#include <vlx/VlxReceiver.hpp>

#include "support/RawSender.hpp"
#include "support/RecordedReceiver.hpp"
#include "support/TestAccess.hpp"
#include "support/TestProvider.hpp"
#include "support/VlxTest.hpp"

namespace
{

std::atomic<GstClock*> lastClock = nullptr; // that was made

} // namespace

// Replaces GStreamer's own function, and calls it.
__attribute__((visibility("default"))) GstClock*
gst_net_client_clock_new(const gchar* name, const gchar* address, gint port, GstClockTime baseTime)
{
    static const auto make = reinterpret_cast<decltype(&gst_net_client_clock_new)>(
        ::dlsym(RTLD_NEXT, "gst_net_client_clock_new"));
    lastClock = make(name, address, port, baseTime);
    return lastClock;
}

namespace vlx
{

using namespace vlx::testing;

using ClockType = Receiver::StreamClockType;

namespace
{

constexpr std::int64_t NsPerSecond = 1'000'000'000;
constexpr std::int64_t ProviderOffsetNs = 5000 * NsPerSecond;

constexpr const char* SilentAddress = "127.0.0.9";

constexpr const char* FirstSequence = "sequence 48000 x2 S16LE";
constexpr const char* SecondSequence = "sequence 44100 x2 S16LE";
constexpr const char* Ready = "ready synced net clock";

class ReceiverClockTest : public VlxTest
{
protected:
    void SetUp() override
    {
        m_provider.start(ProviderOffsetNs);
        m_provider.stop(); // it has a port now
        prepareNetClock(m_provider.getAddress(), m_provider.getPort());
        prepareNetClock(SilentAddress, 9);
        VlxTest::SetUp();
    }

    void TearDown() override
    {
        m_receiver.stop();
        m_sender.reset();
        m_provider.stop();
        VlxTest::TearDown();
    }

    RawClockInfo getClockInfo() const
    {
        return {m_provider.getAddress(), m_provider.getPort(), TimeSyncProtocol::GstNetClock};
    }

    /// Starts a sender and a receiver, as far as the first sequence.
    void startStream()
    {
        m_sender.emplace(getSocketName(), NanomsgProtocol::PubSub, getClockInfo());
        ASSERT_TRUE(m_receiver.start(getSocketName()));
        ASSERT_TRUE(m_sender->serve(1));
        ASSERT_TRUE(m_receiver.waitForEvent(FirstSequence));
    }

    TestProvider m_provider; // not started
    std::optional<RawSender> m_sender;
    RecordedReceiver m_receiver;
};

/// Called inside a clock's callback: the worker, which meanwhile ends the connection, must wait
/// without holding a lock. The pause gives it time to fail.
void expectConnectionIntact(const Receiver& receiver)
{
    for (int i = 0; i < 100; ++i)
    {
        ASSERT_EQ(receiver.getStreamClockType(), ClockType::SyncedNetClock);
        ASSERT_EQ(receiver.getState(), Receiver::State::Running);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

/// A depayloader that accepts a sample rate of 48000 at once. With any other rate it waits until
/// the receiver's clock is synchronised, then rejects the header.
class PickyDepayloader : public Depayloader
{
public:
    explicit PickyDepayloader(Receiver& receiver) : Depayloader(PcmFourcc), m_receiver(receiver) {}

    bool processCodecHeader(const ByteView& codecHeader) override
    {
        if (codecHeader[0] == 0x80)
            return true;
        EXPECT_TRUE(waitFor([this] { return m_receiver.getCurrentStreamTime() != 0; }));
        // The clock's callback comes at this moment, or has passed its own check before.
        (m_receiver.*ReceiverTestAccess::OnClockSyncStateChange)();
        return false;
    }

private:
    Receiver& m_receiver;
};

} // namespace

TEST_F(ReceiverClockTest, ClocksFollowTheInitialInfo)
{
    const std::tuple<int, std::uint16_t, ClockType> rows[] = {
        {2, 0, ClockType::MonotonicSystemClock},
        {2, 9, ClockType::MonotonicSystemClock},
        {1, 0, ClockType::NoClock},
        {0, 0, ClockType::NoClock},
        {1, 9, ClockType::SyncedNetClock},
        {0, 9, ClockType::SyncedNetClock},
        {7, 9, ClockType::SyncedNetClock},
    };
    for (const auto& [protocol, port, clock] : rows)
    {
        SCOPED_TRACE(std::to_string(protocol) + ", port " + std::to_string(port));
        log().clear();
        RawSender sender(
            getSocketName(), NanomsgProtocol::PubSub,
            {SilentAddress, port, TimeSyncProtocol{protocol}});
        RecordedReceiver receiver;
        EXPECT_EQ(receiver.get().getCurrentStreamTime(), 0U);
        ASSERT_TRUE(receiver.start(getSocketName()));
        ASSERT_TRUE(sender.serve());
        ASSERT_TRUE(receiver.waitForEvent("sequence"));
        ASSERT_TRUE(sender.sendOverMainChannel(makeFrame(1, 1))); // after a report, if there is one
        ASSERT_TRUE(receiver.waitForEvent("frame"));

        EXPECT_EQ(receiver.get().getStreamClockType(), clock);
        EXPECT_EQ(receiver.count("ready"), clock == ClockType::SyncedNetClock ? 0U : 1U);
        EXPECT_EQ(receiver.count(std::string("ready ") + toString(clock)), receiver.count("ready"));
        const TimeValue before = miscUtils::getMonotonicSysclockTime();
        const TimeValue time = receiver.get().getCurrentStreamTime();
        if (clock == ClockType::MonotonicSystemClock)
            EXPECT_TRUE(before <= time && time <= miscUtils::getMonotonicSysclockTime());
        else
            EXPECT_EQ(time, 0U);
    }
}

TEST_F(ReceiverClockTest, IsReadyOnceWhenTheClockIsSynchronised)
{
    std::atomic<TimeValue> timeWhenReady = 0;
    std::atomic<ClockType> clockWhenReady = ClockType::Undetermined;
    m_receiver.onEvent(
        [&](const std::string& event)
        {
            if (event != Ready)
                return;
            clockWhenReady = m_receiver.get().getStreamClockType();
            timeWhenReady = m_receiver.get().getCurrentStreamTime();
        });
    ASSERT_NO_FATAL_FAILURE(startStream());
    ASSERT_TRUE(m_sender->sendOverMainChannel(makeSequenceInfo(2, 44100)));
    ASSERT_TRUE(m_receiver.waitForEvent(SecondSequence));
    ASSERT_TRUE(m_sender->sendOverMainChannel(makeFrame(2, 1)));
    ASSERT_TRUE(m_receiver.waitForEvent("frame 1"));
    m_provider.start(ProviderOffsetNs); // late
    ASSERT_TRUE(m_receiver.waitForEvent("ready"));
    ASSERT_TRUE(m_sender->sendOverMainChannel(makeSequenceInfo(3)));
    ASSERT_TRUE(m_receiver.waitForEvent(FirstSequence, 2));

    // The clock calls back at each of these.
    const auto readTime = [&] { return m_receiver.get().getCurrentStreamTime(); };
    m_provider.stop();
    m_provider.start(ProviderOffsetNs + 1000 * NsPerSecond);
    ASSERT_TRUE(waitFor([&] { return readTime() == 0; }));
    ASSERT_TRUE(waitFor([&] { return readTime() != 0; }));
    ASSERT_TRUE(m_sender->sendOverMainChannel(makeFrame(3, 3)));
    ASSERT_TRUE(m_receiver.waitForEvent("frame 3"));
    EXPECT_THAT(
        m_receiver.getEvents(), ElementsAre(
                                    "connecting", "running", FirstSequence, SecondSequence,
                                    "frame 1", Ready, FirstSequence, "frame 3"));
    EXPECT_EQ(clockWhenReady, ClockType::SyncedNetClock);
    EXPECT_GT(timeWhenReady, static_cast<TimeValue>(ProviderOffsetNs));

    guint64 roundTripLimitNs = 0;
    g_object_get(lastClock.load(), "round-trip-limit", &roundTripLimitNs, nullptr);
    EXPECT_EQ(roundTripLimitNs, 175'000'000U);
}

TEST_F(ReceiverClockTest, ALossAndAStopWaitForTheClocksCallback)
{
    std::thread::id worker;
    std::atomic<bool> isDone = false;
    std::promise<void> entered;
    m_receiver.onEvent(
        [&](const std::string& event)
        {
            if (event == FirstSequence)
                worker = std::this_thread::get_id();
            if (event != Ready)
                return;
            EXPECT_NE(std::this_thread::get_id(), worker);
            const bool isLoss = m_receiver.count(Ready) == 1;
            if (isLoss)
                m_sender->getSidechannel().close();
            else
                entered.set_value();
            // The worker is about to stop the clock, or already waits for it.
            EXPECT_TRUE(log().waitFor(
                isLoss ? DebugLog(StartsWith("Connection gone because of shutdown"))
                       : TraceLog("Loop wakup activity; aborting wait for input")));
            expectConnectionIntact(m_receiver.get());
            isDone = !isLoss;
        });
    ASSERT_NO_FATAL_FAILURE(startStream());
    m_provider.start(ProviderOffsetNs);
    ASSERT_TRUE(m_receiver.waitForEvent("connecting", 2));
    EXPECT_FALSE(log().contains(ErrorLog(StartsWith("Cannot query"))));

    // The next connection is still reported ready.
    m_provider.stop();
    m_sender.emplace(getSocketName(), NanomsgProtocol::PubSub, getClockInfo());
    ASSERT_TRUE(m_sender->serve(1));
    ASSERT_TRUE(m_receiver.waitForEvent(FirstSequence, 2));
    m_provider.start(ProviderOffsetNs);
    ASSERT_EQ(entered.get_future().wait_for(DefaultDeadline), std::future_status::ready);
    m_receiver.stop();
    EXPECT_TRUE(isDone);
    EXPECT_THAT(
        m_receiver.getEvents(), ElementsAre(
                                    "connecting", "running", FirstSequence, Ready, "connecting",
                                    "running", FirstSequence, Ready, "idle"));
}

TEST_F(ReceiverClockTest, ARejectedHeaderIsNotReportedReady)
{
    for (const bool isFirst : {true, false})
    {
        SCOPED_TRACE(isFirst ? "first sequence" : "second sequence");
        m_provider.stop();
        RawSender sender(getSocketName(), NanomsgProtocol::PubSub, getClockInfo());
        Receiver receiver;
        PickyDepayloader depayloader(receiver);
        std::atomic<int> numReady = 0;
        std::atomic<int> numSequences = 0;
        receiver.addDepayloader(depayloader);
        receiver.setNewSequenceCallback([&](Depayloader&) { ++numSequences; });
        receiver.setReceiverIsReadyCallback([&](Depayloader&, ClockType) { ++numReady; });
        log().clear();
        ASSERT_TRUE(receiver.initializeReceiver(getSocketName()));
        ASSERT_TRUE(sender.greet() && sender.joinMainChannel());
        if (!isFirst)
        {
            ASSERT_TRUE(sender.sendOverSidechannel(makeSequenceInfo(1)));
            ASSERT_TRUE(waitFor([&] { return numSequences == 1; }));
        }
        ASSERT_TRUE(sender.sendOverMainChannel(makeSequenceInfo(2, 44100)));
        ASSERT_TRUE(log().waitFor(DebugLog("Matching payloader found"), isFirst ? 1 : 2));
        m_provider.start(ProviderOffsetNs);
        EXPECT_TRUE(log().waitFor(ErrorLog("Error while consuming VLX packet")));
        EXPECT_TRUE(log().waitFor(DebugLog(StartsWith("Connection gone because of shutdown"))));
        kit::stopPromptly(receiver);
        EXPECT_EQ(numReady, 0);
        EXPECT_EQ(numSequences, isFirst ? 0 : 1);
    }
}

} // namespace vlx
