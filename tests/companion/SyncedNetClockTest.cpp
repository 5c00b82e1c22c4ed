// The clock against real net time providers on loopback.

#include <array>
#include <cstdlib>

#include <dlfcn.h>
#include <gio/gio.h>

#include <miscUtils/MiscUtils.hpp>
#include <miscUtils/SyncedNetClock.hpp>

#include "support/ResourceLimit.hpp"
#include "support/TestProvider.hpp"
#include "support/VlxTest.hpp"

namespace
{

std::mutex resolvedMutex;
std::vector<std::string> resolvedNames;

} // namespace

// Replaces GLib's own function, and calls it.
__attribute__((visibility("default"))) GList* g_resolver_lookup_by_name(
    GResolver* resolver,
    const gchar* hostname,
    GCancellable* cancellable,
    GError** error)
{
    {
        const std::lock_guard<std::mutex> lock(resolvedMutex);
        resolvedNames.emplace_back(hostname);
    }
    static const auto lookUp = reinterpret_cast<decltype(&g_resolver_lookup_by_name)>(
        ::dlsym(RTLD_NEXT, "g_resolver_lookup_by_name"));
    return lookUp(resolver, hostname, cancellable, error);
}

namespace
{

using miscUtils::SyncedNetClock;
using miscUtils::TimeValue;
using Provider = vlx::testing::TestProvider;
using vlx::testing::ErrorLog;
using vlx::testing::LogCapture;
using vlx::testing::waitFor;
using namespace std::chrono_literals;
using SteadyClock = std::chrono::steady_clock;

constexpr unsigned int WindowSize = 100;
constexpr unsigned long RoundTripLimitNs = 175'000'000;
constexpr std::int64_t NsPerMs = 1'000'000;
constexpr std::int64_t NsPerSecond = 1'000'000'000;

// Tolerance of a young estimate on a busy machine; far less than any jump below.
constexpr std::int64_t ToleranceNs = 150 * NsPerMs;

constexpr std::int64_t InitialOffsetNs = 5000 * NsPerSecond;

// A spinning thread uses more than this within seconds, even on a busy machine.
constexpr std::uint64_t MaxIdleCpuNs = 100 * NsPerMs;

// A new thread allocates, and a sanitizer's allocator may stay locked after a fork.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr bool MayForkedChildStartThreads = false;
#else
constexpr bool MayForkedChildStartThreads = true;
#endif

/// @return processor time of the threads with a name, in nanoseconds
std::uint64_t readCpuTimeNs(const std::string& threadName)
{
    std::uint64_t sum = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task"))
    {
        std::string name;
        std::uint64_t time = 0;
        std::ifstream(task.path() / "comm") >> name;
        std::ifstream(task.path() / "schedstat") >> time;
        sum += name == threadName ? time : 0;
    }
    return sum;
}

// A clock under test, and the record of its callback. On a busy machine GStreamer may reject every
// answer for some seconds, which counts as silence: the tests check for losses, not for exact
// numbers.
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

    // @return lead of the clock over the monotonic one; not set if it returns no time
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

/// A provider that answers, and a clock.
class SyncedNetClockTest : public testing::Test
{
protected:
    SyncedNetClockTest()
    {
        m_provider.start(InitialOffsetNs);
    }

    void start(const std::function<void()>& onStateChange)
    {
        m_clock.startSynchronization(
            m_provider.getAddress(), m_provider.getPort(), WindowSize, RoundTripLimitNs,
            onStateChange);
    }

    Provider m_provider;
    Follower m_follower;
    SyncedNetClock m_clock;
};

TEST_F(SyncedNetClockTest, FollowsTheLastProviderGivenByNameOrAddress)
{
    Provider named("127.0.0.1");
    named.start(10 * InitialOffsetNs);
    const auto& clock = m_follower.clock;
    EXPECT_FALSE(clock.isSynchronized());
    EXPECT_EQ(clock.getSynchronizedTime(), 0U);
    m_follower.start(m_provider);
    EXPECT_TRUE(waitFor([&] { return m_follower.lastSeen && m_follower.follows(m_provider); }));
    m_follower.start("localhost", named.getPort());
    EXPECT_FALSE(m_follower.isNear(m_provider.getOffsetNs(), NsPerSecond));
    EXPECT_TRUE(waitFor([&] { return m_follower.lastSeen && m_follower.follows(named); }));
    m_follower.clock.stopSynchronization();
    EXPECT_FALSE(clock.isSynchronized());
    EXPECT_EQ(clock.getSynchronizedTime(), 0U);
}

TEST_F(SyncedNetClockTest, AForkedCopyEndsAndTheOriginalGoesOn)
{
    // Synchronised, so that GStreamer's initialisation holds no lock when the process forks.
    auto follower = std::make_unique<Follower>();
    follower->start(m_provider);
    ASSERT_TRUE(waitFor([&] { return follower->lastSeen && follower->follows(m_provider); }));
    auto neverStarted = std::make_unique<SyncedNetClock>();
    std::atomic<bool> isDone = false;
    std::thread asking(
        [&]
        {
            while (!isDone)
                neverStarted->isSynchronized();
        });
    for (int i = 0; i < 50 && !HasFailure(); ++i)
    {
        EXPECT_TRUE(vlx::testing::runInFork(
            [&]
            {
                neverStarted->stopSynchronization();
                neverStarted.reset();
                follower->clock.stopSynchronization();
                if (MayForkedChildStartThreads && i % 2 == 0)
                    follower->start("127.0.0.1", 0); // its own clock, which follows nothing
                follower.reset();
                return true;
            }))
            << i;
    }
    isDone = true;
    asking.join();

    // Its thread sleeps until a message of the provider arrives.
    const std::uint64_t before = readCpuTimeNs("vlx-clock");
    EXPECT_GT(before, 0U);
    m_provider.stop();
    EXPECT_TRUE(waitFor([&] { return !follower->lastSeen; }));
    EXPECT_LT(readCpuTimeNs("vlx-clock") - before, MaxIdleCpuNs);
}

// Event at the provider while two clocks follow it.
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
    // Waits until both follow again. Every reading meanwhile must be correct: the old time until
    // the first answer, no time while it adapts, the new time once it is synchronised again.
    void checkReturn(std::int64_t oldOffsetNs)
    {
        std::array<bool, 2> hasLeftOldTime = {false, false};
        EXPECT_TRUE(waitFor(
            [&]
            {
                for (std::size_t i = 0; i < m_followers.size(); ++i)
                    checkReading(m_followers[i].readOffsetNs(), oldOffsetNs, hasLeftOldTime[i]);
                return m_followers[0].hasReturned(m_provider) &&
                       m_followers[1].hasReturned(m_provider);
            }));
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
TEST_F(SyncedNetClockTest, IsNeverWrongAboutAnAddressUsedBefore)
{
    m_follower.start(m_provider);
    ASSERT_TRUE(waitFor([&] { return m_follower.follows(m_provider); }));
    m_follower.clock.stopSynchronization();

    for (const std::int64_t jumpNs : {std::int64_t{0}, 1000 * NsPerSecond, -1000 * NsPerSecond})
    {
        m_provider.stop();
        m_provider.start(InitialOffsetNs + jumpNs);
        m_follower.start(m_provider);
        ASSERT_TRUE(waitFor([&] { return m_follower.clock.isSynchronized(); }));
        EXPECT_TRUE(m_follower.isNear(m_provider.getOffsetNs(), ToleranceNs)) << jumpNs;
        EXPECT_TRUE(waitFor([&] { return m_follower.lastSeen.load(); }));
        m_follower.clock.stopSynchronization();
    }
}

TEST_F(SyncedNetClockTest, NeverSynchronizesWithoutAProvider)
{
    const std::string ownAddress = vlx::testing::makeOwnAddress();
    constexpr const char* Missing = "no-such-host.invalid";
    const std::pair<std::string, unsigned int> rows[] = {
        {ownAddress, 9}, {Missing, 9},           {"", 9},
        {"\xff\xfe", 9}, {"host\xe2\x82", 9}, // no UTF-8, and cut off within a character
        {ownAddress, 0}, {ownAddress, 65536 + 9}};
    std::vector<std::unique_ptr<Follower>> followers;
    for (const auto& [address, port] : rows)
        followers.emplace_back(std::make_unique<Follower>())->start(address, port);

    Follower witness;
    witness.start(m_provider);
    ASSERT_TRUE(waitFor([&] { return witness.follows(m_provider); }));

    for (std::size_t i = 0; i < followers.size(); ++i)
    {
        SCOPED_TRACE(i);
        const auto begin = SteadyClock::now();
        EXPECT_FALSE(followers[i]->clock.isSynchronized());
        EXPECT_EQ(followers[i]->clock.getSynchronizedTime(), 0U);
        followers[i]->clock.stopSynchronization();
        EXPECT_LT(SteadyClock::now() - begin, 2s);
        EXPECT_EQ(followers[i]->numCallbacks, 0);
    }
    const std::lock_guard<std::mutex> lock(resolvedMutex);
    EXPECT_NE(std::count(resolvedNames.begin(), resolvedNames.end(), Missing), 0);
    for (const std::string& name : resolvedNames)
        EXPECT_TRUE(g_utf8_validate(name.c_str(), -1, nullptr));
}

TEST_F(SyncedNetClockTest, WithoutAThreadItNeverSynchronizes)
{
    const auto startWithoutThreads = []
    {
        SyncedNetClock clock;
        const vlx::testing::NoThreads shortage;
        clock.startSynchronization("127.0.0.1", 9, WindowSize, RoundTripLimitNs, [] {});
        const bool isReported = LogCapture::get().contains(ErrorLog(
            "Could not start the network clock's thread: Resource temporarily unavailable (11)"));
        clock.stopSynchronization();
        std::_Exit(isReported && !clock.isSynchronized() ? 0 : 1);
    };
    EXPECT_EXIT(startWithoutThreads(), testing::ExitedWithCode(0), "");
}

TEST_F(SyncedNetClockTest, StartsFromInsideTwoCallbacksDoNotWaitForEachOther)
{
    std::atomic<int> numEntered = 0;
    std::atomic<int> numDone = 0;
    std::function<void()> onStateChange = [&]
    {
        const int number = ++numEntered;
        if (number > 2)
            return;
        if (number == 1)
        {
            start(onStateChange);
            EXPECT_TRUE(waitFor([&] { return numEntered >= 2; }));
        }
        start(onStateChange);
        ++numDone;
    };
    start(onStateChange);
    EXPECT_TRUE(waitFor([&] { return numDone == 2; }));
    m_clock.stopSynchronization();
    const int numCallbacks = numEntered;
    EXPECT_EQ(numDone, 2) << "a callback is still in progress";
    EXPECT_EQ(numEntered, numCallbacks);
}

TEST_F(SyncedNetClockTest, StopWaitsForTheCallbackInProgressButASecondStopDoesNot)
{
    std::atomic<bool> isEntered = false;
    std::atomic<bool> hasSecondStopReturned = false;
    std::atomic<bool> isDone = false;
    start(
        [&]
        {
            isEntered = true;
            EXPECT_TRUE(waitFor([&] { return hasSecondStopReturned.load(); }));
            isDone = true;
        });
    ASSERT_TRUE(waitFor([&] { return isEntered.load(); }));
    std::thread stopper(
        [&]
        {
            m_clock.stopSynchronization();
            EXPECT_TRUE(isDone);
        });
    EXPECT_TRUE(waitFor([&] { return !m_clock.isSynchronized(); })); // the first stop has begun
    m_clock.stopSynchronization();
    EXPECT_FALSE(isDone);
    hasSecondStopReturned = true;
    stopper.join();
}

TEST_F(SyncedNetClockTest, MayBeStoppedAndStartedFromInsideTheCallback)
{
    std::atomic<int> numCallbacks = 0;
    std::function<void()> onStateChange = [&]
    {
        m_clock.stopSynchronization();
        m_clock.stopSynchronization();
        EXPECT_FALSE(m_clock.isSynchronized());
        if (++numCallbacks < 3)
            start(onStateChange);
    };

    start(onStateChange);
    EXPECT_TRUE(waitFor([&] { return numCallbacks == 3; }));
    start(onStateChange);
    EXPECT_TRUE(waitFor([&] { return numCallbacks == 4; }));
}

TEST_F(SyncedNetClockTest, MayBeUsedFromManyThreadsAtOnce)
{
    std::vector<std::future<void>> calls;
    for (int i = 0; i < 4; ++i)
        calls.push_back(std::async(
            std::launch::async,
            [this, i]
            {
                for (int round = 0; round < 50; ++round)
                {
                    if (i % 2 == 0)
                        m_follower.start(m_provider);
                    else
                        m_follower.clock.stopSynchronization();
                    m_follower.clock.getSynchronizedTime();
                }
            }));
    calls.clear(); // waits for them
    m_follower.start(m_provider);
    EXPECT_TRUE(waitFor([&] { return m_follower.follows(m_provider); }));
}

} // namespace
