#pragma once

namespace vlx::gst
{

/// Forwards the library's log to GStreamer's debug category "vlx", unless the host has configured
/// log4cplus for it. Without either, log4cplus prints a warning to standard error.
///
/// Adopts the category's current threshold, so call it at each start of an element.
///
/// @thread any
void forwardLibraryLog();

} // namespace vlx::gst
