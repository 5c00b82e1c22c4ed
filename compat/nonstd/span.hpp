#pragma once

/// Stands in for span-lite where that library is not installed: the same name, on std::span.

#include <cstddef>
#include <span>

namespace nonstd::span_lite
{

template <class T, std::size_t Extent = std::dynamic_extent>
using span = std::span<T, Extent>;

} // namespace nonstd::span_lite
