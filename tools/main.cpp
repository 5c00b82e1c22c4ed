#include "Commands.hpp"

int main(int argc, char** argv)
{
    using namespace vlx::tool;
    return runProgram(
        argc, argv,
        {makeSendCommand(), makeReceiveCommand(), makeListCommand(), makeInfoCommand(),
         makeMonitorCommand(), makeClockCommand(), makeCheckCommand()});
}
