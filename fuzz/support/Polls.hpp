#pragma once

// The library's poll in the input-loop target, where the linker replaces it: a wait for nothing
// ends at once instead of after its time-out, and polls can be made to fail.

namespace vlx::fuzz
{

/// Makes the next polls fail.
///
/// @param error  for errno
void failNextPolls(int count, int error);

} // namespace vlx::fuzz
