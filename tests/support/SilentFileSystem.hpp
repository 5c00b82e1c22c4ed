#pragma once

#include <string>

namespace vlx::testing
{

/// Serves a file system with one file, named "file", that user and group 65534 may open, and of
/// which nothing is ever closed: no flush and no release is answered. In the calling process alone,
/// which must be a child with one thread; needs root and /dev/fuse.
///
/// @param directory  where it is mounted, for this process and its children only
/// @param readyFD    gets one byte once the file system can be used
/// @return only if it cannot be mounted
void serveSilentFileSystem(const std::string& directory, int readyFD);

} // namespace vlx::testing
