/// The plugin: registers the elements.

#include <gst/gst.h>

#include <vlxkit/Logging.hpp>

#include "VlxSink.hpp"
#include "VlxSrc.hpp"

namespace
{

gboolean registerElements(GstPlugin* plugin)
{
    vlx::kit::endLogThreads();
    return static_cast<gboolean>(
        gst_element_register(plugin, "vlxsink", GST_RANK_NONE, vlx::gst::getSinkType()) != FALSE &&
        gst_element_register(plugin, "vlxsrc", GST_RANK_NONE, vlx::gst::getSrcType()) != FALSE);
}

} // unnamed namespace

GST_PLUGIN_DEFINE(
    GST_VERSION_MAJOR,
    GST_VERSION_MINOR,
    vlx,
    "Timestamped media from one process to many on one machine",
    registerElements,
    VLX_PLUGIN_VERSION,
    GST_LICENSE_UNKNOWN,
    "Vellox",
    "unknown")
