#pragma once

namespace vlx::bench
{

/// From now on SIGINT and SIGTERM only set a flag, and end waits; so everything that was started is
/// cleaned up on the way out.
void catchInterrupts();

bool isInterrupted();

} // namespace vlx::bench
