#pragma once

/// vlxsrc: receives a stream of another process of this machine.

#include <gst/gst.h>

namespace vlx::gst
{

/// @return the element's type; registered at the first call
GType getSrcType();

} // namespace vlx::gst
