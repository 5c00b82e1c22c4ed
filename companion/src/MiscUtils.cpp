#include <cstring>
#include <ctime>

#include <miscUtils/MiscUtils.hpp>

#include "Assertions.hpp"

namespace miscUtils
{

TimeValue getMonotonicSysclockTime()
{
    constexpr TimeValue NsPerSecond = 1'000'000'000;
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<TimeValue>(now.tv_sec) * NsPerSecond + static_cast<TimeValue>(now.tv_nsec);
}

std::string strerror_r_safe(int errorNumber)
{
    // The GNU variant: it returns the text, which need not be in the buffer.
    char buffer[256];
    const char* const text = strerror_r(errorNumber, buffer, sizeof(buffer));
    return text;
}

} // namespace miscUtils
