#pragma once

#include <string>
#include <string_view>

#include "common/Poll.hpp"

namespace vlx::tool
{

class ByteSource;

/// Looks at the beginning of what may be an audio file; no further than it takes to see that it is
/// none, so that samples that trickle in are not waited for.
///
/// @throws CommandFailure at the deadline
std::string_view peekFileBegin(ByteSource& source, const Deadline& deadline);

/// @param begin  first bytes, as peekFileBegin() gives them
/// @return "WAV", "FLAC", "Ogg"...; empty if nothing tells of an audio file
std::string getFileKind(std::string_view begin);

} // namespace vlx::tool
