#pragma once

/// Version of these headers, for `#if`. The build reads the version from here. While the major
/// number stays, programs that were built against an older minor number go on working.

#define VLX_VERSION_MAJOR 1
#define VLX_VERSION_MINOR 0
#define VLX_VERSION_PATCH 0

/// The three numbers in one, for comparisons: 10203 is 1.2.3.
#define VLX_VERSION (VLX_VERSION_MAJOR * 10000 + VLX_VERSION_MINOR * 100 + VLX_VERSION_PATCH)
