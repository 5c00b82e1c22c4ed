#include <atomic>
#include <chrono>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <vlxkit/Consumer.hpp>

#include "support/RawSender.hpp"
#include "support/VlxTest.hpp"

namespace vlx::kit
{

namespace
{

using namespace vlx::testing;
using namespace std::chrono_literals;
using std::chrono::steady_clock;

// Far below the 5 s of a stop that nobody helps; the figure itself is printed.
constexpr auto StopDeadline = 2s;

/// A consumer that writes down every callback as a line of text, such as "joined",
/// "format S16LE, 48000 Hz, 2 channels", "frame 5 gap 0 first". Callbacks that overlap, or that
/// come after a stop, are failures.
class RecordedConsumer
{
public:
    explicit RecordedConsumer(ConsumerOptions options)
        : m_consumer(
              std::move(options),
              {.onFrame =
                   [this](const Frame& frame)
               {
                   record(
                       "frame " + std::to_string(frame.timestamp) + " gap " +
                       std::to_string(frame.gapNs) + (frame.isFirst ? " first" : ""));
               },
               .onFormat = [this](const StreamFormat& format)
               { record("format " + toText(format)); },
               .onCodec = [this](Depayloader&) { record("codec"); },
               .onEvent = [this](const ConsumerEvent& event)
               { record(std::string(toString(event.kind)) + ": " + event.text); }})
    {
    }

    ~RecordedConsumer()
    {
        stop("end of test");
    }

    RecordedConsumer(const RecordedConsumer&) = delete;
    RecordedConsumer& operator=(const RecordedConsumer&) = delete;

    bool start()
    {
        m_mayCall = true;
        return m_consumer.start();
    }

    /// Stops, and says how long it took.
    void stop(const std::string& state)
    {
        const auto begin = steady_clock::now();
        m_consumer.stop();
        m_mayCall = false;
        const auto duration = steady_clock::now() - begin;
        EXPECT_LT(duration, StopDeadline) << state;
        std::cout << "stop, " << state << ": "
                  << std::chrono::duration_cast<std::chrono::microseconds>(duration).count()
                  << " us\n";
    }

    Consumer& get()
    {
        return m_consumer;
    }

    std::vector<std::string> getLines() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines;
    }

    std::size_t count(const std::string& beginning) const
    {
        std::size_t number = 0;
        for (const std::string& line : getLines())
            number += line.starts_with(beginning) ? 1U : 0U;
        return number;
    }

    ::testing::AssertionResult waitForLine(const std::string& beginning, std::size_t times = 1)
    {
        if (waitFor([&] { return count(beginning) >= times; }))
            return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << "not " << times << " times \"" << beginning
                                             << "\" in " << ::testing::PrintToString(getLines());
    }

private:
    void record(const std::string& line)
    {
        EXPECT_TRUE(m_mayCall) << line << " after the stop";
        EXPECT_FALSE(m_calling.exchange(true)) << line << " beside another callback";
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_lines.push_back(line);
        }
        m_calling = false;
    }

    std::atomic<bool> m_mayCall = false;
    std::atomic<bool> m_calling = false;
    mutable std::mutex m_mutex;
    std::vector<std::string> m_lines;
    Consumer m_consumer; // last: its threads use what stands above
};

class ConsumerTest : public VlxTest
{
};

TEST_F(ConsumerTest, DeliversAndJoinsAgain)
{
    RecordedConsumer consumer({.name = getSocketName()});
    ASSERT_TRUE(consumer.start()) << consumer.get().getProblem();
    for (const int round : {1, 2})
    {
        RawSender sender(getSocketName(), NanomsgProtocol::PubSub);
        ASSERT_TRUE(sender.serve());
        const std::uint8_t first = round == 1 ? 10 : 50;
        for (const std::uint8_t timestamp : {first, static_cast<std::uint8_t>(first + 10)})
        {
            ASSERT_TRUE(sender.sendOverMainChannel(makeFrame(1, timestamp)));
            ASSERT_TRUE(consumer.waitForLine("frame " + std::to_string(timestamp)));
        }
        sender.getSidechannel().close();
        sender.getListener().close();
        ASSERT_TRUE(consumer.waitForLine("lost", static_cast<std::size_t>(round)));
    }
    const std::string joined = "joined: joined \"" + getSocketName() + '"';
    const std::string format = "format S16LE, 48000 Hz, 2 channels";
    const std::string lost = "lost: lost \"" + getSocketName() + "\", waiting for it to return";
    EXPECT_EQ(
        consumer.getLines(), (std::vector<std::string>{
                                 joined, format, "frame 10 gap 0 first", "frame 20 gap 0", lost,
                                 joined, format, "frame 50 gap 20 first", "frame 60 gap 0", lost}));
    consumer.stop("connecting without a sender");

    const ConsumerStatistics statistics = consumer.get().getStatistics();
    EXPECT_EQ(statistics.frames, 4U);
    EXPECT_EQ(statistics.bytes, 16U);
    EXPECT_EQ(statistics.gaps, 1U);
    EXPECT_EQ(statistics.gapNs, 20U);
    EXPECT_EQ(statistics.connections, 2U);
    EXPECT_EQ(statistics.reconnects, 1U);
    EXPECT_EQ(statistics.ages.getCount(), 4U);
    EXPECT_GT(statistics.joinNs, 0U);
}

TEST_F(ConsumerTest, JoinsAgainAfterAStall)
{
    RecordedConsumer consumer({.name = getSocketName(), .stallTimeout = 50ms});
    RawSender sender(getSocketName(), NanomsgProtocol::PubSub);
    ASSERT_TRUE(consumer.start());
    ASSERT_TRUE(sender.serve());
    ASSERT_TRUE(consumer.waitForLine("stalled"));
    ASSERT_TRUE(sender.serve());
    ASSERT_TRUE(sender.sendOverMainChannel(makeFrame(1, 10)));
    ASSERT_TRUE(consumer.waitForLine("frame 10"));
    EXPECT_EQ(consumer.count("lost"), 0U);
    consumer.stop("joined");
    EXPECT_GE(consumer.get().getStatistics().stalls, 1U);
}

} // unnamed namespace

} // namespace vlx::kit
