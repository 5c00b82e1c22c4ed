// A build without GStreamer: a network clock never synchronises, and each start logs one message.

#include <miscUtils/SyncedNetClock.hpp>

#include "support/VlxTest.hpp"

namespace vlx::testing
{

namespace
{

using NoNetClockTest = VlxTest;

TEST_F(NoNetClockTest, StartsAreRefusedInOneWarning)
{
    miscUtils::SyncedNetClock clock;
    clock.startSynchronization("127.0.0.1", 8554, 100, 175'000'000, [] { FAIL(); });
    EXPECT_FALSE(clock.isSynchronized());
    EXPECT_EQ(clock.getSynchronizedTime(), 0U);
    EXPECT_EQ(log().count(WarnLog(::testing::_)), 1U);
    clock.stopSynchronization();
}

} // unnamed namespace

} // namespace vlx::testing
