#include "SilentLog.hpp"

#include <utility>

#include <log4cplus/logger.h>
#include <log4cplus/nullappender.h>

namespace vlx::fuzz
{

void silenceLog()
{
    static bool isDone = false;
    if (std::exchange(isDone, true))
        return;
    log4cplus::Logger logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("Vellox"));
    logger.setAdditivity(false);
    logger.setLogLevel(log4cplus::TRACE_LOG_LEVEL);
    logger.addAppender(log4cplus::SharedAppenderPtr(new log4cplus::NullAppender));
}

} // namespace vlx::fuzz
