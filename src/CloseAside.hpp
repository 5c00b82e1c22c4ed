#pragma once

// Closing a descriptor without waiting for it: its last close may take long, or for ever.

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

#include "Guards.hpp"
#include "ThreadName.hpp"

namespace vlx
{

/// Starts a thread that nobody joins and that runs no signal handler.
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

/// Threads that close a descriptor by ending and have not come to that. A file of the host process
/// that cannot be closed holds them.
inline std::atomic<int> numEndingThreads = 0;
inline constexpr int MaxEndingThreads = 16;

/// What a thread that closes by ending and its caller tell each other.
struct EndingThreadEvents
{
    /// Whether the thread has a table of descriptors of its own, without what comes after its own.
    std::promise<bool> taken;
    /// Nothing is left in that table but the thread's own descriptor.
    std::promise<void> alone;
    /// The caller has closed the descriptor in the process's table.
    std::promise<void> released;
};

/// Body of a thread that closes a descriptor by ending. A thread that ends does not wait for a
/// socket that lingers, so that such threads cannot pile up.
inline void closeByEnding(int fd, const std::shared_ptr<EndingThreadEvents>& events)
{
    const ScopeGuard countGuard([] { --numEndingThreads; });
    nameThisThread("vlx-closer");
    const auto number = static_cast<unsigned int>(fd);
    const bool hasOwnTable = ::close_range(number + 1, ~0U, CLOSE_RANGE_UNSHARE) == 0;
    events->taken.set_value(hasOwnTable);
    if (!hasOwnTable)
        return;
    // These are copies of the host's files, and each close may wait for its file system.
    if (number > 0)
        ::close_range(0, number - 1, 0);
    events->alone.set_value();
    events->released.get_future().wait();
}

/// Hands a descriptor to a thread that closes it by ending.
///
/// @return false if this system cannot do it, before Linux 5.9 for instance, or if too many such
///         threads are held; nothing is closed then
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
    ::close(fd); // not the last one, which is the thread's
    events->released.set_value();
    // The caller should find nothing held open here, such as the name of its listening socket.
    events->alone.get_future().wait_for(LongestWait);
    return true;
}

/// Descriptors that a few threads close one after the other. No more threads are started when all
/// of them are held; what is left in the list then stays open, as where no thread can be started,
/// until there is something to close again.
class ClosingList
{
public:
    /// @return the list of the process. Never destroyed, since its threads may outlive main()
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

    /// Starts another thread, if there is something to close and not all of them are held.
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
