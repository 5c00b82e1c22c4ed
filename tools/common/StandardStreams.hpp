#pragma once

namespace vlx::tool
{

/// Opens /dev/null for each of standard input, output and error that the parent has closed.
/// Otherwise the next file or socket that is opened would get that number, and messages or samples
/// would land in it. The first thing that main() does.
void guardStandardStreams();

/// @param fd  0, 1 or 2
/// @return whether the parent had closed it
bool wasClosed(int fd);

} // namespace vlx::tool
