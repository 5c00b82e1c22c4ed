#pragma once

/// Types that every Vellox header shares: the byte buffer, the read-only byte view, the time value
/// and the marker for exported names.

#include <cstdint>
#include <vector>

#include <nonstd/span.hpp>

#include <miscUtils/TimeValue.hpp>

/// Marks a name as part of the library's binary interface; everything else stays hidden.
#define VLX_API __attribute__((visibility("default")))

namespace vlx
{

/// Growable byte vector that owns packet or media bytes. Packet buffers are cleared and reused, so
/// that their capacity stays.
using Buffer = std::vector<std::uint8_t>;

/// Read-only view of contiguous bytes. It owns nothing: the caller keeps the bytes alive and
/// unchanged for the duration of the call.
using ByteView = nonstd::span_lite::span<const unsigned char>;

/// Unsigned 64-bit time value. The library carries timestamps and durations without interpreting
/// them; its clocks, the kit and the tool use nanoseconds.
using TimeValue = miscUtils::TimeValue;

} // namespace vlx
