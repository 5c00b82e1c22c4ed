#include "NetClock.hpp"

#include <limits>

#include <miscUtils/MiscUtils.hpp>

namespace vlx::tool
{

void follow(miscUtils::SyncedNetClock& clock, const std::string& address, std::uint16_t port)
{
    constexpr unsigned WindowSize = 100;
    constexpr unsigned long RoundTripLimitNs = 175'000'000;
    clock.startSynchronization(address, port, WindowSize, RoundTripLimitNs, nullptr);
}

std::optional<std::int64_t> measureOffset(const miscUtils::SyncedNetClock& clock)
{
    constexpr int NumTries = 3;
    const auto now = []
    { return static_cast<std::int64_t>(miscUtils::getMonotonicSysclockTime()); };
    std::int64_t narrowest = std::numeric_limits<std::int64_t>::max();
    std::optional<std::int64_t> offset;
    for (int i = 0; i < NumTries; ++i)
    {
        const std::int64_t before = now();
        const auto time = static_cast<std::int64_t>(clock.getSynchronizedTime());
        const std::int64_t width = now() - before;
        if (time == 0)
            return std::nullopt;
        if (width >= narrowest)
            continue;
        narrowest = width;
        offset = time - before - width / 2;
    }
    return offset;
}

} // namespace vlx::tool
