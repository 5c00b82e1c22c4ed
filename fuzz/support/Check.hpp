#pragma once

#include <cstdio>
#include <cstdlib>

#include <log4cplus/logger.h>
#include <log4cplus/nullappender.h>

namespace vlx::fuzz
{

/// Stops the process where a target finds something wrong, in every build.
///
/// @param text  what should have held
inline void check(bool holds, const char* text)
{
    if (holds)
        return;
    std::fprintf(stderr, "\nDoes not hold: %s\n", text);
    std::abort();
}

/// Makes the library build each of its log lines, down to TRACE, and throws them away: the texts
/// are code that inputs reach, too.
inline void silenceLog()
{
    [[maybe_unused]] static const bool done = []
    {
        log4cplus::Logger logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("Vellox"));
        logger.setAdditivity(false);
        logger.setLogLevel(log4cplus::TRACE_LOG_LEVEL);
        logger.addAppender(log4cplus::SharedAppenderPtr(new log4cplus::NullAppender));
        return true;
    }();
}

} // namespace vlx::fuzz
