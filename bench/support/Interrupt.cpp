#include "support/Interrupt.hpp"

#include <csignal>

namespace vlx::bench
{
namespace
{

volatile std::sig_atomic_t interrupted = 0;

} // namespace

void catchInterrupts()
{
    struct sigaction action
    {
    };
    action.sa_handler = [](int) { interrupted = 1; };
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

bool isInterrupted()
{
    return interrupted != 0;
}

} // namespace vlx::bench
