#pragma once

#include <exception>
#include <thread>

#include <sched.h>
#include <sys/stat.h>

namespace vlx::kit
{

/// Runs a function under a umask of its own, and waits for it. The umask of the process stays as it
/// is, at every moment: the function runs on a new thread, which shares umask and working directory
/// with the threads that it starts alone. Without a thread of its own kind (a sandbox can forbid
/// it) it runs under the umask of the process.
///
/// Throws what the function throws, and std::system_error if there is no thread left.
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
