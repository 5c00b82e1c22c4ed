#pragma once

/// Version of these headers, for `#if`; the build reads it from here. A program that was built
/// against an older minor version works with a newer one of the same major version.

#define VLX_VERSION_MAJOR 1
#define VLX_VERSION_MINOR 0
#define VLX_VERSION_PATCH 0

/// The version as one number, for comparisons: 10203 is 1.2.3.
#define VLX_VERSION (VLX_VERSION_MAJOR * 10000 + VLX_VERSION_MINOR * 100 + VLX_VERSION_PATCH)
