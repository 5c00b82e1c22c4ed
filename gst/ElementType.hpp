#pragma once

#include <string>

#include <gst/gst.h>

namespace vlx::gst
{

inline constexpr const char* UriProtocol = "vlx";

/// Registers an element's type that also handles "vlx://NAME", which sets its property
/// "socket-name".
///
/// @param parent  GST_TYPE_BASE_SINK or GST_TYPE_PUSH_SRC
/// @param info    static
/// @thread once for each name
GType registerElementType(GType parent, const char* name, const GTypeInfo& info);

/// Flags of a property that takes effect at the next start.
inline constexpr auto SetWhenStopped = static_cast<GParamFlags>(
    static_cast<int>(G_PARAM_READWRITE) | static_cast<int>(G_PARAM_STATIC_STRINGS) |
    GST_PARAM_MUTABLE_READY);

/// Flags of a property that takes effect at once.
inline constexpr auto SetAnyTime = static_cast<GParamFlags>(
    static_cast<int>(G_PARAM_READWRITE) | static_cast<int>(G_PARAM_STATIC_STRINGS) |
    GST_PARAM_MUTABLE_PLAYING);

inline constexpr auto ReadOnly = static_cast<GParamFlags>(
    static_cast<int>(G_PARAM_READABLE) | static_cast<int>(G_PARAM_STATIC_STRINGS));

/// @return the text of a string value; empty for a null one
std::string getText(const GValue* value);

} // namespace vlx::gst
