#include <vlxkit/Consumer.hpp>

#include "support/RawSender.hpp"
#include "support/TestProvider.hpp"
#include "support/VlxTest.hpp"

namespace vlx::kit
{

namespace
{

using namespace vlx::testing;

class ConsumerClockTest : public VlxTest
{
protected:
    void SetUp() override
    {
        constexpr std::int64_t OffsetNs = 7'000'000'000'000; // far off CLOCK_MONOTONIC
        m_provider.start(OffsetNs);
        prepareNetClock(m_provider.getAddress(), m_provider.getPort());
        VlxTest::SetUp();
    }

    TestProvider m_provider;
};

TEST_F(ConsumerClockTest, MeasuresAgesAndOffsetOnTheStreamsClock)
{
    const std::string directory = getTempDirectory() + "/VlxSender-netclk";
    std::filesystem::create_directory(directory);
    {
        RawSender sender(
            getSocketName(), NanomsgProtocol::PubSub,
            {.address = m_provider.getAddress(),
             .port = m_provider.getPort(),
             .protocol = TimeSyncProtocol::GstNetClock},
            "ipc://" + directory + "/nanomsgChannel.ipc");
        std::atomic<int> frames = 0;
        Consumer consumer({.name = getSocketName()}, {.onFrame = [&](const Frame&) { ++frames; }});
        ASSERT_TRUE(consumer.start());
        ASSERT_TRUE(sender.serve());
        ASSERT_TRUE(waitFor([&] { return consumer.getStatistics().clockSynchronized; }));
        const ConsumerStatistics statistics = consumer.getStatistics();
        EXPECT_EQ(statistics.clock, Receiver::StreamClockType::SyncedNetClock);
        const auto offsetNs = static_cast<double>(m_provider.getOffsetNs());
        EXPECT_NEAR(static_cast<double>(statistics.clockOffsetNs), offsetNs, 1e9);

        ASSERT_TRUE(sender.sendOverMainChannel(makeFrame(1, 10)));
        ASSERT_TRUE(waitFor([&] { return frames != 0; }));
        EXPECT_GE(static_cast<double>(consumer.getAges().getMax().value_or(0)), 0.9 * offsetNs);
        consumer.stop();
        EXPECT_EQ(consumer.getStatistics().clockOffsetNs, 0);
        EXPECT_FALSE(consumer.getStatistics().clockSynchronized);
    }
    std::filesystem::remove_all(directory);
}

} // unnamed namespace

} // namespace vlx::kit
