#pragma once

#include "common/Program.hpp"

namespace vlx::tool
{

// The subcommands of the tool, one function each. Their pages in "man" say what they do.
Subcommand makeCheckCommand();
Subcommand makeClockCommand();
Subcommand makeInfoCommand();
Subcommand makeListCommand();
Subcommand makeMonitorCommand();
Subcommand makeReceiveCommand();
Subcommand makeSendCommand();

} // namespace vlx::tool
