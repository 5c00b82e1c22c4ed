#pragma once

// Closing a descriptor without waiting for it: its last close may take long, or for ever.

#include <csignal>
#include <deque>
#include <future>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

#include <unistd.h>

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
    bool isStarted = true;
    try
    {
        std::thread(std::forward<Arguments>(arguments)...).detach();
    }
    catch (const std::system_error&)
    {
        isStarted = false;
    }
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return isStarted;
}

/// Body of a thread that closes a descriptor by ending. A thread that ends does not wait for a
/// socket that lingers, so that such threads cannot pile up.
///
/// @param taken     becomes whether the thread has a table of descriptors of its own, in which
///                  nothing is left but this one
/// @param released  set when the caller has closed the descriptor in the process's table
inline void closeByEnding(int fd, std::promise<bool> taken, std::future<void> released)
{
    nameThisThread("vlx-closer");
    const auto number = static_cast<unsigned int>(fd);
    const bool hasOwnTable = ::close_range(number + 1, ~0U, CLOSE_RANGE_UNSHARE) == 0;
    // Before the caller goes on: it must find nothing held open here, such as its socket's name.
    if (hasOwnTable && number > 0)
        ::close_range(0, number - 1, 0);
    taken.set_value(hasOwnTable);
    if (hasOwnTable)
        released.wait();
}

/// Hands a descriptor to a thread that closes it by ending.
///
/// @return false if this system cannot do it, before Linux 5.9 for instance; nothing is closed then
inline bool closeByEndingThread(int fd)
{
    std::promise<bool> taken;
    std::promise<void> released;
    std::future<bool> isTaken = taken.get_future();
    if (!startDetachedThread(&closeByEnding, fd, std::move(taken), released.get_future()) ||
        !isTaken.get())
        return false;
    ::close(fd); // not the last one, which is the thread's
    released.set_value();
    return true;
}

/// Descriptors that a few threads close one after the other. No more threads are started when all
/// of them are held; what is left in the list then stays open.
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
        if (m_numThreads < MaxThreads && startDetachedThread(&ClosingList::closeAll, this))
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
    if (!closeByEndingThread(fd))
        ClosingList::get().add(fd);
}

} // namespace vlx
