#include "common/Program.hpp"
#include "receive/ReceiveCommand.hpp"
#include "receive/ReceiveOptions.hpp"
#include "send/SendCommand.hpp"
#include "send/SendOptions.hpp"

int main(int argc, char** argv)
{
    using namespace vlx::tool;
    return runProgram(
        argc, argv,
        {makeSubcommand(addSendCommand, runSend), makeSubcommand(addReceiveCommand, runReceive)});
}
