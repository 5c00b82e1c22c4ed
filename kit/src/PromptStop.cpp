#include "PromptStop.hpp"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>

#include <ErrorText.hpp>
#include <SenderDirectory.hpp>
#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>
#include <unistd.h>

#include <vlx/VlxReceiver.hpp>

#include "DirectoryEntry.hpp"

namespace vlx::kit
{

namespace
{

constexpr auto FlashInterval = std::chrono::milliseconds(20);

log4cplus::Logger logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("Vellox.Kit"));

/// Flashes an entry in the watched directory for as long as it lives.
class MonitorWaker
{
public:
    explicit MonitorWaker(std::string path) : m_path(std::move(path))
    {
        m_thread = std::thread([this] { loop(); });
    }

    ~MonitorWaker()
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_done = true;
        }
        m_condition.notify_one();
        m_thread.join();
    }

    MonitorWaker(const MonitorWaker&) = delete;
    MonitorWaker& operator=(const MonitorWaker&) = delete;

private:
    void loop()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        while (!m_done)
        {
            lock.unlock();
            if (!flashDirectoryEntry(m_path))
            {
                LOG4CPLUS_WARN(
                    logger, "Cannot make an entry in the watched directory: "
                                << describeError(errno) << "; stopping can take up to 5 seconds");
                return;
            }
            lock.lock();
            m_condition.wait_for(lock, FlashInterval, [this] { return m_done; });
        }
    }

    const std::string m_path;
    std::mutex m_mutex;
    std::condition_variable m_condition;
    bool m_done = false; // guarded by m_mutex
    std::thread m_thread;
};

// No part of the name may look like a sender's directory. Several receivers of one process may be
// stopped at once.
std::string makeEntryPath(const std::string& directory)
{
    static std::atomic<unsigned> stopNumber = 0;
    return directory + "/.vlx-stop-" + std::to_string(::getpid()) + "-" +
           std::to_string(stopNumber++);
}

} // unnamed namespace

void stopPromptly(Receiver& receiver)
{
    stopPromptly(receiver, getBaseDirectory());
}

void stopPromptly(Receiver& receiver, const std::string& directory)
{
    try
    {
        const MonitorWaker waker(makeEntryPath(directory));
        receiver.shutdownReceiver();
    }
    catch (const std::system_error& error)
    {
        LOG4CPLUS_WARN(logger, "Cannot stop the receiver promptly: " << error.what());
        receiver.shutdownReceiver();
    }
}

} // namespace vlx::kit
