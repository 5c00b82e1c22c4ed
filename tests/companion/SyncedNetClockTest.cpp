// The clock against real net time providers on loopback.

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <future>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gst/gst.h>
#include <gst/net/gstnet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <miscUtils/MiscUtils.hpp>
#include <miscUtils/SyncedNetClock.hpp>

namespace
{

using miscUtils::SyncedNetClock;
using miscUtils::TimeValue;
using namespace std::chrono_literals;
using SteadyClock = std::chrono::steady_clock;

constexpr unsigned int WindowSize = 100;
constexpr unsigned long RoundTripLimitNs = 175'000'000;
constexpr auto Patience = 20s;
constexpr std::int64_t NsPerMs = 1'000'000;
constexpr std::int64_t NsPerSecond = 1'000'000'000;

// What a young estimate may be off on a busy machine; far less than any jump below.
constexpr std::int64_t ToleranceNs = 150 * NsPerMs;

constexpr std::int64_t InitialOffsetNs = 5000 * NsPerSecond;

template <typename Condition>
bool waitFor(Condition condition)
{
    const auto deadline = SteadyClock::now() + Patience;
    while (!condition())
    {
        if (SteadyClock::now() > deadline)
            return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

// A loopback address that no other test process uses: while a provider is down, nobody takes its
// port.
std::string makeOwnAddress()
{
    const auto pid = static_cast<unsigned int>(getpid());
    return "127." + std::to_string(1 + ((pid >> 16) & 0x3f)) + "." +
           std::to_string((pid >> 8) & 0xff) + "." +
           std::to_string(1 + (pid & 0x7f) * 2 % 250 + ((pid >> 7) & 1));
}

// A machine that serves a clock: the monotonic one shifted by an offset. A new start is a reboot:
// with a clock object of its own, on the port of before.
class Provider
{
public:
    explicit Provider(std::string address = makeOwnAddress()) : m_address(std::move(address))
    {
        gst_init(nullptr, nullptr);
    }

    ~Provider()
    {
        stop();
    }

    void start(std::int64_t offsetNs)
    {
        m_offsetNs = offsetNs;
        auto* const clock = static_cast<GstClock*>(
            gst_object_ref_sink(g_object_new(GST_TYPE_SYSTEM_CLOCK, nullptr)));
        gst_clock_set_calibration(clock, 0, static_cast<GstClockTime>(offsetNs), 1, 1);
        m_provider = gst_net_time_provider_new(clock, m_address.c_str(), m_port);
        gst_object_unref(clock);
        ASSERT_NE(m_provider, nullptr);
        g_object_get(m_provider, "port", &m_port, nullptr);
    }

    void stop()
    {
        if (m_provider != nullptr)
            gst_object_unref(m_provider);
        m_provider = nullptr;
    }

    const std::string& getAddress() const
    {
        return m_address;
    }
    unsigned int getPort() const
    {
        return static_cast<unsigned int>(m_port);
    }
    std::int64_t getOffsetNs() const
    {
        return m_offsetNs;
    }

private:
    const std::string m_address;
    gint m_port = 0;
    std::int64_t m_offsetNs = 0;
    GstNetTimeProvider* m_provider = nullptr;
};

// A clock under test, and what its callback saw. On a busy machine GStreamer may reject every answer
// for some seconds, which counts as silence: the tests ask for losses seen, not for exact numbers.
struct Follower
{
    std::atomic<int> numCallbacks = 0;
    std::atomic<int> numLosses = 0;
    std::atomic<bool> lastSeen = false;
    std::atomic<bool> wasCalledInVain = false;
    SyncedNetClock clock;

    void start(const std::string& address, unsigned int port)
    {
        lastSeen = false;
        clock.startSynchronization(
            address, port, WindowSize, RoundTripLimitNs,
            [this]
            {
                const bool isSynchronized = clock.isSynchronized();
                clock.getSynchronizedTime();
                if (lastSeen.exchange(isSynchronized) == isSynchronized)
                    wasCalledInVain = true;
                numLosses += isSynchronized ? 0 : 1;
                ++numCallbacks;
            });
    }

    void start(const Provider& provider)
    {
        start(provider.getAddress(), provider.getPort());
    }

    // How far the clock is ahead of the monotonic one now; nothing if it gives no time.
    std::optional<std::int64_t> readOffsetNs() const
    {
        for (;;)
        {
            const auto before = static_cast<std::int64_t>(miscUtils::getMonotonicSysclockTime());
            const auto time = static_cast<std::int64_t>(clock.getSynchronizedTime());
            const auto after = static_cast<std::int64_t>(miscUtils::getMonotonicSysclockTime());
            if (time == 0)
                return std::nullopt;
            if (after - before < NsPerMs) // else interrupted meanwhile
                return time - before;
        }
    }

    bool isNear(std::int64_t offsetNs, std::int64_t toleranceNs = 5 * NsPerMs) const
    {
        const std::optional<std::int64_t> shown = readOffsetNs();
        return shown && std::abs(*shown - offsetNs) <= toleranceNs;
    }

    bool follows(const Provider& provider) const
    {
        return clock.isSynchronized() && isNear(provider.getOffsetNs());
    }

    bool hasReturned(const Provider& provider) const
    {
        return numLosses > 0 && lastSeen && follows(provider);
    }
};

TEST(SyncedNetClockTest, FollowsTheProvider)
{
    Provider provider;
    provider.start(InitialOffsetNs);
    Follower follower;
    EXPECT_FALSE(follower.clock.isSynchronized());
    EXPECT_EQ(follower.clock.getSynchronizedTime(), 0U);

    follower.start(provider);
    EXPECT_TRUE(waitFor([&] { return follower.follows(provider); }));
    EXPECT_TRUE(waitFor([&] { return follower.lastSeen.load(); }));

    follower.clock.stopSynchronization();
    EXPECT_FALSE(follower.clock.isSynchronized());
    EXPECT_EQ(follower.clock.getSynchronizedTime(), 0U);
}

TEST(SyncedNetClockTest, FollowsAProviderGivenByName)
{
    Provider provider("127.0.0.1");
    provider.start(InitialOffsetNs);
    Follower follower;
    follower.start("localhost", provider.getPort());
    EXPECT_TRUE(waitFor([&] { return follower.follows(provider); }));
}

// What becomes of the provider while two clocks follow it.
struct Event
{
    const char* name;
    bool isSeenSilent; // whether it is away until the clocks have noticed
    std::int64_t jumpNs;

    // A part of the test's name.
    friend void PrintTo(const Event& event, std::ostream* stream)
    {
        *stream << event.name;
    }
};

class SyncedNetClockEventTest : public testing::TestWithParam<Event>
{
protected:
    // Waits until both follow again. Whatever a clock says meanwhile must hold: the old time until
    // the first answer, no time while it adapts, the new time once it is synchronised again.
    void checkReturn(std::int64_t oldOffsetNs)
    {
        const auto back = SteadyClock::now();
        std::array<bool, 2> hasLeftOldTime = {false, false};
        EXPECT_TRUE(waitFor(
            [&]
            {
                for (std::size_t i = 0; i < m_followers.size(); ++i)
                    checkReading(m_followers[i].readOffsetNs(), oldOffsetNs, hasLeftOldTime[i]);
                return m_followers[0].hasReturned(m_provider) &&
                       m_followers[1].hasReturned(m_provider);
            }));
        const std::chrono::duration<double, std::milli> taken = SteadyClock::now() - back;
        RecordProperty("msUntilRight", std::to_string(taken.count()));
        std::cout << GetParam().name << ": right " << taken.count() << " ms after the return\n";
    }

    void checkReading(
        std::optional<std::int64_t> shownNs,
        std::int64_t oldOffsetNs,
        bool& hasLeftOldTime) const
    {
        const auto isNear = [shownNs](std::int64_t offsetNs)
        { return shownNs && std::abs(*shownNs - offsetNs) <= ToleranceNs; };
        const bool isOld = isNear(oldOffsetNs);
        const bool isNew = isNear(m_provider.getOffsetNs());
        EXPECT_TRUE(!shownNs || isNew || (isOld && !hasLeftOldTime)) << shownNs.value_or(0);
        hasLeftOldTime = hasLeftOldTime || !isOld;
    }

    Provider m_provider;
    std::array<Follower, 2> m_followers;
};

TEST_P(SyncedNetClockEventTest, IsSurvived)
{
    m_provider.start(InitialOffsetNs);
    for (Follower& follower : m_followers)
        follower.start(m_provider);
    for (Follower& follower : m_followers)
        ASSERT_TRUE(waitFor([&] { return follower.follows(m_provider); }));

    m_provider.stop();
    if (GetParam().isSeenSilent)
    {
        for (Follower& follower : m_followers)
        {
            EXPECT_TRUE(waitFor([&] { return follower.numLosses > 0 && !follower.lastSeen; }));
            EXPECT_FALSE(follower.clock.isSynchronized());
            EXPECT_TRUE(follower.isNear(InitialOffsetNs, ToleranceNs)) << "time not continued";
        }
    }

    m_provider.start(InitialOffsetNs + GetParam().jumpNs);
    checkReturn(InitialOffsetNs);
    for (Follower& follower : m_followers)
        EXPECT_FALSE(follower.wasCalledInVain);
}

INSTANTIATE_TEST_SUITE_P(
    Provider,
    SyncedNetClockEventTest,
    testing::Values(
        Event{"BackWithTheSameClock", true, 0},
        Event{"BackWithItsClockSetBack", true, -1000 * NsPerSecond},
        Event{"BackWithItsClockSetAhead", true, 1000 * NsPerSecond},
        Event{"SetBackAtOnce", false, -1000 * NsPerSecond},
        Event{"SetAheadAtOnce", false, 1000 * NsPerSecond},
        Event{"SetAheadALittleAtOnce", false, NsPerSecond / 2}),
    [](const auto& row) { return std::string(row.param.name); });

// GStreamer keeps its clock for an address for a while, with the calibration of before.
TEST(SyncedNetClockTest, IsNeverWrongAboutAnAddressUsedBefore)
{
    Provider provider;
    provider.start(InitialOffsetNs);
    Follower follower;
    follower.start(provider);
    ASSERT_TRUE(waitFor([&] { return follower.follows(provider); }));
    follower.clock.stopSynchronization();

    for (const std::int64_t jumpNs : {std::int64_t{0}, 1000 * NsPerSecond, -1000 * NsPerSecond})
    {
        provider.stop();
        provider.start(InitialOffsetNs + jumpNs);
        follower.start(provider);
        ASSERT_TRUE(waitFor([&] { return follower.clock.isSynchronized(); }));
        EXPECT_TRUE(follower.isNear(provider.getOffsetNs(), ToleranceNs)) << jumpNs;
        EXPECT_TRUE(waitFor([&] { return follower.lastSeen.load(); }));
        follower.clock.stopSynchronization();
    }
}

TEST(SyncedNetClockTest, FollowsTheLastOneStarted)
{
    Provider first;
    Provider second;
    first.start(InitialOffsetNs);
    second.start(10 * InitialOffsetNs);
    Follower follower;
    follower.start(first);
    ASSERT_TRUE(waitFor([&] { return follower.follows(first); }));

    follower.start(second);
    EXPECT_FALSE(follower.isNear(first.getOffsetNs(), NsPerSecond));
    EXPECT_TRUE(waitFor([&] { return follower.lastSeen && follower.follows(second); }));
}

TEST(SyncedNetClockTest, NeverSynchronizesWithoutAProvider)
{
    const std::string ownAddress = makeOwnAddress();
    const struct
    {
        const char* name;
        std::string address;
        unsigned int port;
    } rows[] = {
        {"nobody there", ownAddress, 9},
        {"no such name", "no-such-host.invalid", 9},
        {"no name", "", 9},
        {"not a name", "\xff\xfe", 9},
        {"port 0", ownAddress, 0},
        {"port too large", ownAddress, 65536 + 9}};
    std::vector<std::unique_ptr<Follower>> followers;
    for (const auto& row : rows)
    {
        followers.push_back(std::make_unique<Follower>());
        followers.back()->start(row.address, row.port);
    }

    Provider provider;
    provider.start(InitialOffsetNs);
    Follower witness;
    witness.start(provider);
    ASSERT_TRUE(waitFor([&] { return witness.follows(provider); }));

    for (std::size_t i = 0; i < followers.size(); ++i)
    {
        SCOPED_TRACE(rows[i].name);
        const auto begin = SteadyClock::now();
        EXPECT_FALSE(followers[i]->clock.isSynchronized());
        EXPECT_EQ(followers[i]->clock.getSynchronizedTime(), 0U);
        followers[i]->clock.stopSynchronization();
        EXPECT_LT(SteadyClock::now() - begin, 2s);
        EXPECT_EQ(followers[i]->numCallbacks, 0);
    }
}

TEST(SyncedNetClockTest, StopWaitsForTheCallbackInProgressButASecondStopDoesNot)
{
    Provider provider;
    provider.start(InitialOffsetNs);
    std::promise<void> entered;
    std::promise<void> secondStopReturned;
    std::atomic<bool> isDone = false;
    SyncedNetClock clock;
    clock.startSynchronization(
        provider.getAddress(), provider.getPort(), WindowSize, RoundTripLimitNs,
        [&]
        {
            entered.set_value();
            EXPECT_EQ(
                secondStopReturned.get_future().wait_for(Patience), std::future_status::ready);
            isDone = true;
        });
    ASSERT_EQ(entered.get_future().wait_for(Patience), std::future_status::ready);

    std::thread stopper(
        [&]
        {
            clock.stopSynchronization();
            EXPECT_TRUE(isDone);
        });
    EXPECT_TRUE(waitFor([&] { return !clock.isSynchronized(); })); // the first stop has begun
    clock.stopSynchronization();
    EXPECT_FALSE(isDone);
    secondStopReturned.set_value();
    stopper.join();
}

TEST(SyncedNetClockTest, MayBeStoppedAndStartedFromInsideTheCallback)
{
    Provider provider;
    provider.start(InitialOffsetNs);
    std::atomic<int> numCallbacks = 0;
    SyncedNetClock clock;
    std::function<void()> onStateChange;
    const auto start = [&]
    {
        clock.startSynchronization(
            provider.getAddress(), provider.getPort(), WindowSize, RoundTripLimitNs, onStateChange);
    };
    onStateChange = [&]
    {
        clock.stopSynchronization();
        clock.stopSynchronization();
        EXPECT_FALSE(clock.isSynchronized());
        if (++numCallbacks < 3)
            start();
    };

    start();
    EXPECT_TRUE(waitFor([&] { return numCallbacks == 3; }));
    start();
    EXPECT_TRUE(waitFor([&] { return numCallbacks == 4; }));
}

TEST(SyncedNetClockTest, MakesNoCallbackAfterTheStop)
{
    Provider provider;
    provider.start(InitialOffsetNs);
    Follower stopped;
    Follower witness;
    stopped.start(provider);
    witness.start(provider);
    ASSERT_TRUE(waitFor([&] { return stopped.follows(provider) && witness.follows(provider); }));

    stopped.clock.stopSynchronization();
    const int numCallbacks = stopped.numCallbacks;
    provider.stop();
    provider.start(InitialOffsetNs + 1000 * NsPerSecond);
    EXPECT_TRUE(waitFor([&] { return witness.hasReturned(provider); }));
    EXPECT_EQ(stopped.numCallbacks, numCallbacks);
}

TEST(SyncedNetClockTest, MayBeUsedFromManyThreadsAtOnce)
{
    Provider provider;
    provider.start(InitialOffsetNs);
    Follower follower;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back(
            [&, i]
            {
                for (int round = 0; round < 50; ++round)
                {
                    if (i % 2 == 0)
                        follower.start(provider);
                    else
                        follower.clock.stopSynchronization();
                    follower.clock.isSynchronized();
                    follower.clock.getSynchronizedTime();
                }
            });
    for (std::thread& thread : threads)
        thread.join();

    follower.start(provider);
    EXPECT_TRUE(waitFor([&] { return follower.follows(provider); }));
}

} // namespace
