// The log of library and kit, for Python's logging. The thread that logs never runs Python: lines
// wait in a queue until a Python thread delivers them.

#include <atomic>
#include <deque>
#include <mutex>
#include <new>

#include <vlxkit/Logging.hpp>

#include "Support.hpp"

namespace vlx::python
{

namespace
{

struct Line
{
    kit::LogLevel level;
    std::string text;
    std::string file;
    std::string function;
    int number;
};

class LogQueue
{
public:
    void put(const kit::LogLine& line)
    {
        constexpr std::size_t MaxLines = 10'000;
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_lines.size() == MaxLines)
            return;
        m_lines.push_back({line.level, line.text, line.file, line.function, line.line});
        m_isEmpty = false;
    }

    bool isEmpty() const
    {
        return m_isEmpty;
    }

    std::deque<Line> takeAll()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_isEmpty = true;
        return std::exchange(m_lines, {});
    }

private:
    std::mutex m_mutex;
    std::deque<Line> m_lines; // guarded by m_mutex
    std::atomic<bool> m_isEmpty = true;
};

// Never destroyed: threads of a library may log until the process has ended.
LogQueue& getQueue()
{
    static auto* const queue = new LogQueue;
    return *queue;
}

kit::LogListener& getListener()
{
    static auto* const listener = new kit::LogListener(
        kit::LogLevel::Warning, [](const kit::LogLine& line) { getQueue().put(line); });
    return *listener;
}

bool isDelivering = false; // guarded by the GIL

} // unnamed namespace

void deliverLog()
{
    // A handler may call the module.
    if (getQueue().isEmpty() || std::exchange(isDelivering, true))
        return;
    try
    {
        const py::object deliver = py::module_::import("vellox._log").attr("deliver");
        for (const Line& line : getQueue().takeAll())
            deliver(
                static_cast<int>(line.level), toPython(line.text), toPython(line.file), line.number,
                toPython(line.function));
    }
    catch (py::error_already_set& error)
    {
        isDelivering = false;
        if (!error.matches(PyExc_Exception)) // Ctrl-C
            throw;
        error.discard_as_unraisable("vellox");
    }
    isDelivering = false;
}

void addLog(py::module_& module)
{
    module.def("deliver_log", deliverLog);
    module.def(
        "set_log_level",
        [](int level) { getListener().setLevel(static_cast<kit::LogLevel>(level)); });
    // A thread of the parent may have held the lock.
    module.def("forget_log", [] { ::new (static_cast<void*>(&getQueue())) LogQueue; });
}

} // namespace vlx::python
