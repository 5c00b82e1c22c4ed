#include "LogBridge.hpp"

#include <mutex>

#include <gst/gst.h>
#include <log4cplus/appender.h>
#include <log4cplus/initializer.h>
#include <log4cplus/logger.h>
#include <log4cplus/spi/loggingevent.h>

#include <vlxkit/Text.hpp>

namespace vlx::gst
{

namespace
{

GstDebugCategory* getCategory()
{
    static GstDebugCategory* const category =
        _gst_debug_category_new("vlx", 0, "Vellox: library and kit");
    return category;
}

GstDebugLevel toDebugLevel(log4cplus::LogLevel level)
{
    if (level >= log4cplus::ERROR_LOG_LEVEL)
        return GST_LEVEL_ERROR;
    if (level >= log4cplus::WARN_LOG_LEVEL)
        return GST_LEVEL_WARNING;
    if (level >= log4cplus::INFO_LOG_LEVEL)
        return GST_LEVEL_INFO;
    return level >= log4cplus::DEBUG_LOG_LEVEL ? GST_LEVEL_DEBUG : GST_LEVEL_TRACE;
}

log4cplus::LogLevel toLibraryLevel(GstDebugLevel threshold)
{
    if (threshold >= GST_LEVEL_TRACE)
        return log4cplus::TRACE_LOG_LEVEL;
    if (threshold >= GST_LEVEL_DEBUG)
        return log4cplus::DEBUG_LOG_LEVEL;
    if (threshold >= GST_LEVEL_INFO)
        return log4cplus::INFO_LOG_LEVEL;
    if (threshold >= GST_LEVEL_WARNING)
        return log4cplus::WARN_LOG_LEVEL;
    return threshold >= GST_LEVEL_ERROR ? log4cplus::ERROR_LOG_LEVEL : log4cplus::OFF_LOG_LEVEL;
}

class ForwardingAppender : public log4cplus::Appender
{
public:
    ~ForwardingAppender() override
    {
        destructorImpl();
    }

    void close() override
    {
        closed = true;
    }

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override
    {
        gst_debug_log(
            getCategory(), toDebugLevel(event.getLogLevel()), event.getFile().c_str(),
            event.getFunction().c_str(), event.getLine(), nullptr, "%s",
            kit::toPrintable(event.getMessage()).c_str());
    }
};

} // unnamed namespace

void forwardLibraryLog()
{
    static std::mutex mutex;
    static bool isOurs = false;
    const std::lock_guard lock(mutex);

    log4cplus::Logger logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("Vellox"));
    if (!isOurs)
    {
        if (!logger.getAllAppenders().empty() ||
            !log4cplus::Logger::getRoot().getAllAppenders().empty())
            return;
        logger.addAppender(log4cplus::SharedAppenderPtr(new ForwardingAppender));
        isOurs = true;
    }
    logger.setLogLevel(toLibraryLevel(gst_debug_category_get_threshold(getCategory())));
}

} // namespace vlx::gst
