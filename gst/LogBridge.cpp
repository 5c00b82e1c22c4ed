#include "LogBridge.hpp"

#include <mutex>

#include <gst/gst.h>

#include <vlxkit/Logging.hpp>
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

GstDebugLevel toDebugLevel(kit::LogLevel level)
{
    static constexpr GstDebugLevel Levels[] = {
        GST_LEVEL_ERROR, GST_LEVEL_WARNING, GST_LEVEL_INFO, GST_LEVEL_DEBUG, GST_LEVEL_TRACE};
    return Levels[static_cast<int>(level)];
}

/// @return the most verbose level that the category shows
kit::LogLevel findLevel()
{
    const GstDebugLevel threshold = gst_debug_category_get_threshold(getCategory());
    using enum kit::LogLevel;
    for (const kit::LogLevel level : {Trace, Debug, Info, Warning})
    {
        if (toDebugLevel(level) <= threshold)
            return level;
    }
    return Error;
}

void forward(const kit::LogLine& line)
{
    gst_debug_log(
        getCategory(), toDebugLevel(line.level), line.file.c_str(), line.function.c_str(),
        line.line, nullptr, "%s", kit::toPrintable(line.text).c_str());
}

} // unnamed namespace

void forwardLibraryLog()
{
    static std::mutex mutex;
    static kit::LogListener* listener = nullptr; // as long as the process
    const std::lock_guard lock(mutex);

    if (listener != nullptr)
        listener->setLevel(findLevel());
    else if (!kit::isLogReceived())
        listener = new kit::LogListener(findLevel(), forward);
}

} // namespace vlx::gst
