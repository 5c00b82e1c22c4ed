#include "StopSignal.hpp"

#include <cerrno>
#include <cstdint>
#include <system_error>
#include <utility>

#include <sys/eventfd.h>
#include <unistd.h>

namespace vlx::tool
{

StopSignal::StopSignal() : m_eventFD(::eventfd(0, EFD_CLOEXEC))
{
    if (m_eventFD < 0)
        throw std::system_error(errno, std::generic_category(), "eventfd");
}

StopSignal::~StopSignal()
{
    ::close(m_eventFD);
}

void StopSignal::request(int signalNumber)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_signalNumber != 0)
        return;
    m_signalNumber = signalNumber;

    const std::uint64_t one = 1;
    // Cannot fail: the counter is far from its limit.
    [[maybe_unused]] const ssize_t written = ::write(m_eventFD, &one, sizeof(one));
    m_condition.notify_all();
    if (m_listener)
        m_listener();
}

bool StopSignal::isRequested() const
{
    return m_signalNumber != 0;
}

int StopSignal::getSignalNumber() const
{
    return m_signalNumber;
}

bool StopSignal::waitUntil(std::chrono::steady_clock::time_point deadline) const
{
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_condition.wait_until(lock, deadline, [this] { return isRequested(); });
}

int StopSignal::getFD() const
{
    return m_eventFD;
}

StopListener::StopListener(StopSignal& stop, std::function<void()> function) : m_stop(stop)
{
    const std::lock_guard<std::mutex> lock(m_stop.m_mutex);
    if (m_stop.isRequested())
        function();
    else
        m_stop.m_listener = std::move(function);
}

StopListener::~StopListener()
{
    const std::lock_guard<std::mutex> lock(m_stop.m_mutex);
    m_stop.m_listener = nullptr;
}

} // namespace vlx::tool
