#pragma once

/// vlxsink: sends its stream to any number of processes of this machine.

#include <gst/gst.h>

namespace vlx::gst
{

/// @return the element's type; registered at the first call
GType getSinkType();

} // namespace vlx::gst
