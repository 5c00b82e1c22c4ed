#include "check/CheckCommand.hpp"
#include "clock/ClockCommand.hpp"
#include "common/Program.hpp"
#include "info/InfoCommand.hpp"
#include "list/ListCommand.hpp"
#include "monitor/MonitorCommand.hpp"
#include "receive/ReceiveCommand.hpp"
#include "send/SendCommand.hpp"

int main(int argc, char** argv)
{
    using namespace vlx::tool;
    return runProgram(
        argc, argv,
        {makeSubcommand(addSendCommand, runSend), makeSubcommand(addReceiveCommand, runReceive),
         makeSubcommand(addListCommand, runList), makeSubcommand(addInfoCommand, runInfo),
         makeSubcommand(addMonitorCommand, runMonitor), makeSubcommand(addClockCommand, runClock),
         makeSubcommand(addCheckCommand, runCheck)});
}
