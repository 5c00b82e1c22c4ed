#include <future>

#include <sys/eventfd.h>

#include <vlxkit/Discovery.hpp>

#include "Support.hpp"

namespace vlx::python
{

namespace
{

using namespace py::literals;

const char* getClock(const InitialInfo& info)
{
    if (info.timeSyncProtocol == TimeSyncProtocol::MonotonicSystemClock)
        return "monotonic";
    return info.timeSyncPort != 0 ? "network" : "none";
}

/// Ends a probe when it is destroyed.
class Stop
{
public:
    ~Stop()
    {
        constexpr std::uint64_t One = 1;
        [[maybe_unused]] const ssize_t size = ::write(m_event, &One, sizeof(One));
        if (m_question.valid())
            m_question.wait();
        ::close(m_event);
    }

    /// If no thread starts, the destructor runs, since the other constructor has returned.
    explicit Stop(const std::string& name, std::chrono::milliseconds timeout) : Stop()
    {
        m_question = std::async(
            std::launch::async,
            [this, name, timeout] { return kit::probeSenders({name}, timeout, m_event).at(0); });
    }

    Stop(const Stop&) = delete;
    Stop& operator=(const Stop&) = delete;

    kit::SenderProbe wait()
    {
        waitFor(
            std::chrono::nanoseconds(-1), [this](std::chrono::nanoseconds slice)
            { return m_question.wait_for(slice) == std::future_status::ready; });
        return m_question.get();
    }

private:
    Stop()
    {
        if (m_event < 0)
            raise(kit::ErrorCode::OutOfResources, "no descriptor is left");
    }

    const int m_event = ::eventfd(0, EFD_CLOEXEC);
    std::future<kit::SenderProbe> m_question;
};

py::object probe(const py::bytes& name, std::optional<double> timeout)
{
    const auto limit =
        std::chrono::duration_cast<std::chrono::milliseconds>(toNanoseconds(timeout));
    const kit::SenderProbe answer = Stop(name, limit).wait();
    if (!answer.reached)
        return py::none();
    py::object format = py::none();
    py::object codec = py::none();
    if (answer.format)
        format = toPythonFormat(*answer.format);
    else if (answer.fourcc)
        codec = toPythonCodec({*answer.fourcc, answer.codecHeader});
    py::object clock = py::none();
    if (answer.initialInfo)
        clock = py::str(getClock(*answer.initialInfo));
    return getType("Probe")(
        "user"_a = answer.user, "answered"_a = answer.initialInfo.has_value(),
        "busy"_a = answer.busy, "clock"_a = clock, "format"_a = format, "codec"_a = codec,
        "shared"_a = answer.ring.has_value(), "socket_file"_a = toPython(answer.socketFile),
        "may_join"_a = answer.mayJoin);
}

py::list listSenders()
{
    kit::SenderList found;
    {
        const WithoutGil unlocked;
        found = kit::listSenders();
    }
    const py::object type = getType("Sender");
    py::list list;
    for (const kit::SenderEntry& sender : found.senders)
        list.append(type(
            toPython(sender.name), sender.process, toPython(sender.command), sender.user,
            sender.receivers, toPython(sender.socketFile)));
    return list;
}

} // unnamed namespace

void addDiscovery(py::module_& module)
{
    module.def("probe", probe);
    module.def("senders", listSenders);
}

} // namespace vlx::python
