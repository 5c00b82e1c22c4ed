#pragma once

namespace vlx::fuzz
{

/// Makes the library build each of its log lines, down to TRACE, and throws them away: the texts
/// are code that inputs reach, too. Does nothing from the second call on.
void silenceLog();

} // namespace vlx::fuzz
