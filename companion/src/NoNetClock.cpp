// The network clock of a build without GStreamer: it never synchronises, and logs a warning.

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include <miscUtils/SyncedNetClock.hpp>

#include "Assertions.hpp"

namespace miscUtils
{

namespace
{

log4cplus::Logger logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("Vellox"));

} // unnamed namespace

class SyncedNetClock::Impl
{
};

SyncedNetClock::SyncedNetClock() = default;

SyncedNetClock::~SyncedNetClock() = default;

// The parameters are those of a build with network clocks.
// NOLINTBEGIN(performance-unnecessary-value-param)
void SyncedNetClock::startSynchronization(
    std::string /*address*/,
    unsigned int /*port*/,
    unsigned int /*windowSize*/,
    unsigned long /*roundTripLimit*/,
    std::function<void()> /*onStateChange*/)
// NOLINTEND(performance-unnecessary-value-param)
{
    LOG4CPLUS_WARN(logger, "Built without network clocks: the stream has none");
}

void SyncedNetClock::stopSynchronization() {}

bool SyncedNetClock::isSynchronized() const
{
    return false;
}

TimeValue SyncedNetClock::getSynchronizedTime() const
{
    return 0;
}

} // namespace miscUtils
