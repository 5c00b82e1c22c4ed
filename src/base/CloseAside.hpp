#pragma once

// Closes descriptors without waiting: the last close of a file may take long, or block forever.

#include <atomic>
#include <chrono>
#include <csignal>
#include <deque>
#include <future>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

#include <unistd.h>

#include "base/Guards.hpp"
#include "base/ThreadName.hpp"

namespace vlx
{

/// Starts a detached thread that runs no signal handler.
///
/// @return whether it could be started
template <class... Arguments>
bool startDetachedThread(Arguments&&... arguments)
{
    sigset_t all;
    sigset_t before;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    const ScopeGuard maskGuard([&before] { ::pthread_sigmask(SIG_SETMASK, &before, nullptr); });
    try
    {
        std::thread(std::forward<Arguments>(arguments)...).detach();
    }
    catch (const std::system_error&)
    {
        return false;
    }
    return true;
}

/// Number of threads that close a descriptor by exiting and have not reached that step. A file of
/// the host process whose close blocks can hold them.
inline std::atomic<int> numEndingThreads = 0;
inline constexpr int MaxEndingThreads = 16;

/// Events between a thread that closes by exiting and its caller.
struct EndingThreadEvents
{
    /// Whether the thread has its own descriptor table, without any descriptor above the given one.
    std::promise<bool> taken;
    /// That table contains only the descriptor to close.
    std::promise<void> alone;
    /// The caller has closed the descriptor in the process's table.
    std::promise<void> released;
};

/// Body of a thread that closes a descriptor by exiting. An exiting thread does not wait for a
/// lingering socket, so such threads cannot accumulate.
inline void closeByEnding(int fd, const std::shared_ptr<EndingThreadEvents>& events)
{
    const ScopeGuard countGuard([] { --numEndingThreads; });
    nameThisThread("vlx-closer");
    const auto number = static_cast<unsigned int>(fd);
    const bool hasOwnTable = ::close_range(number + 1, ~0U, CLOSE_RANGE_UNSHARE) == 0;
    events->taken.set_value(hasOwnTable);
    if (!hasOwnTable)
        return;
    // These are copies of the host's files; each close may wait for its file system.
    if (number > 0)
        ::close_range(0, number - 1, 0);
    events->alone.set_value();
    events->released.get_future().wait();
}

/// Passes a descriptor to a thread that closes it by exiting.
///
/// @return false, with nothing closed, if the system does not support it (before Linux 5.9) or too
///         many such threads are blocked
inline bool closeByEndingThread(int fd)
{
    constexpr std::chrono::milliseconds LongestWait{100};
    ScopeGuard countGuard([] { --numEndingThreads; });
    if (++numEndingThreads > MaxEndingThreads)
        return false;
    const auto events = std::make_shared<EndingThreadEvents>();
    if (!startDetachedThread(&closeByEnding, fd, events))
        return false;
    countGuard.dismiss();
    if (!events->taken.get_future().get())
        return false;
    ::close(fd); // not the last copy, which the thread has
    events->released.set_value();
    // On return the caller's table must not keep anything open, such as the name of a listening
    // socket.
    events->alone.get_future().wait_for(LongestWait);
    return true;
}

/// List of descriptors that a few threads close one after the other. If all threads are blocked, or
/// no thread can be started, the descriptors in the list stay open until the next one is added.
class ClosingList
{
public:
    /// @return the list of the process, never destroyed: its threads may outlive main()
    static ClosingList& get()
    {
        static ClosingList& list = *new ClosingList;
        return list;
    }

    void add(int fd)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_fds.push_back(fd);
    }

    /// Starts another thread if there is a descriptor to close and not all threads are blocked.
    void closeWhatIsLeft()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_fds.empty() && m_numThreads < MaxThreads &&
            startDetachedThread(&ClosingList::closeAll, this))
            ++m_numThreads;
    }

private:
    static constexpr int MaxThreads = 4;

    void closeAll()
    {
        nameThisThread("vlx-closer");
        std::unique_lock<std::mutex> lock(m_mutex);
        while (!m_fds.empty())
        {
            const int fd = m_fds.front();
            m_fds.pop_front();
            lock.unlock();
            ::close(fd);
            lock.lock();
        }
        --m_numThreads;
    }

    std::mutex m_mutex;
    std::deque<int> m_fds;
    int m_numThreads = 0;
};

/// Closes a descriptor, at once or later, without waiting for it.
inline void closeAside(int fd)
{
    ClosingList& list = ClosingList::get();
    if (!closeByEndingThread(fd))
        list.add(fd);
    list.closeWhatIsLeft();
}

} // namespace vlx
