#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>
#include <unistd.h>

#include <vlx/VlxReceiver.hpp>
#include <vlxkit/PromptStop.hpp>

#include "DirectoryEntry.hpp"
#include "base/ErrorText.hpp"
#include "base/SenderDirectory.hpp"

namespace vlx::kit
{

namespace
{

// The monitor may see the first file before its stop flag is set.
constexpr auto FirstFlashInterval = std::chrono::milliseconds(1);
constexpr auto MaxFlashInterval = std::chrono::milliseconds(20);

log4cplus::Logger logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("Vellox.Kit"));

/// Creates and removes a file in the watched directory repeatedly, for as long as it lives.
class MonitorWaker
{
public:
    explicit MonitorWaker(std::string prefix) : m_prefix(std::move(prefix))
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
        auto interval = FirstFlashInterval;
        std::unique_lock<std::mutex> lock(m_mutex);
        while (!m_done)
        {
            lock.unlock();
            if (!flashDirectoryEntry(m_prefix))
            {
                LOG4CPLUS_WARN(
                    logger, "Cannot create a file in the watched directory: "
                                << describeError(errno) << "; stopping can take up to 5 seconds");
                return;
            }
            lock.lock();
            m_condition.wait_for(lock, interval, [this] { return m_done; });
            interval = std::min(2 * interval, MaxFlashInterval);
        }
    }

    const std::string m_prefix;
    std::mutex m_mutex;
    std::condition_variable m_condition;
    bool m_done = false; // guarded by m_mutex
    std::thread m_thread;
};

// Must not contain the name of a sender's directory.
constexpr const char* EntryPrefix = "/.vlx-stop-";

} // unnamed namespace

void stopPromptly(Receiver& receiver, const std::string& directory)
{
    try
    {
        const MonitorWaker waker(getBaseDirectory(directory) + EntryPrefix);
        receiver.shutdownReceiver();
    }
    catch (const std::system_error& error)
    {
        LOG4CPLUS_WARN(logger, "Cannot stop the receiver promptly: " << error.what());
        receiver.shutdownReceiver();
    }
}

} // namespace vlx::kit
