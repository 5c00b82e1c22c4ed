#pragma once

#include <exception>
#include <thread>

#include <sched.h>
#include <sys/stat.h>

namespace vlx::kit
{

/// Runs a function under its own umask and waits for it, without changing the umask of the process:
/// the function runs on a new thread that does not share its umask with the rest of the process. If
/// the system forbids that, as a sandbox may, it runs under the umask of the process.
///
/// Throws what the function throws, and std::system_error if no thread can be started.
template <class Function>
void runWithUmask(mode_t mask, const Function& function)
{
    std::exception_ptr error;
    std::thread thread(
        [&]
        {
            if (::unshare(CLONE_FS) == 0)
                ::umask(mask);
            try
            {
                function();
            }
            catch (...)
            {
                error = std::current_exception();
            }
        });
    thread.join();
    if (error)
        std::rethrow_exception(error);
}

} // namespace vlx::kit
