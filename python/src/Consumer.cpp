#include <atomic>
#include <deque>
#include <mutex>

#include <vlxkit/Consumer.hpp>

#include "Support.hpp"

namespace vlx::python
{

namespace
{

using namespace py::literals;
using Frame = kit::ReceivedFrame;
using Kind = kit::ConsumerEvent::Kind;

constexpr std::size_t MaxEvents = 1000;

/// A consumer of the kit. The GIL guards what has no lock of its own.
class Consumer
{
public:
    Consumer(kit::ConsumerOptions options, std::optional<double> timeout);
    ~Consumer();

    Consumer(const Consumer&) = delete;
    Consumer& operator=(const Consumer&) = delete;

    Frame read(std::optional<double> timeout);
    std::optional<Frame> take();
    void close();
    py::list takeEvents();
    py::dict getStatistics() const;
    std::optional<TimeValue> getStreamTime() const;
    int getDescriptor();

    bool isClosed() const
    {
        return m_isClosed;
    }

private:
    void keepEvent(const kit::ConsumerEvent& event);
    void handle(const kit::ConsumerEvent& event) const;
    void checkOpen() const;
    std::optional<Frame> accept(kit::ConsumerItem& item) const;

    const pid_t m_process = ::getpid();
    const std::string m_name;
    const std::optional<double> m_timeout;
    std::atomic<bool> m_isClosed = false;

    std::mutex m_eventMutex;
    std::deque<kit::ConsumerEvent> m_events; // guarded by m_eventMutex

    std::mutex m_closeMutex; // locked without the GIL
    kit::Consumer m_consumer;
};

Consumer::Consumer(kit::ConsumerOptions options, std::optional<double> timeout)
    : m_name(options.name),
      m_timeout(timeout),
      m_consumer(std::move(options), {.onEvent = [this](const kit::ConsumerEvent& event) {
                     keepEvent(event);
                 }})
{
    kit::Status status;
    {
        const WithoutGil unlocked;
        status = m_consumer.start();
    }
    check(status);
}

Consumer::~Consumer()
{
    close();
}

void Consumer::close()
{
    m_isClosed = true;
    const WithoutGil unlocked;
    std::unique_lock<std::mutex> lock(m_closeMutex, std::defer_lock);
    if (m_process == ::getpid())
        lock.lock();
    m_consumer.stop();
}

/// Runs on the consumer's threads.
void Consumer::keepEvent(const kit::ConsumerEvent& event)
{
    const std::lock_guard<std::mutex> lock(m_eventMutex);
    if (m_events.size() == MaxEvents)
        m_events.pop_front();
    m_events.push_back(event);
}

void Consumer::handle(const kit::ConsumerEvent& event) const
{
    switch (event.kind)
    {
    case Kind::CannotPlay:
        raise("CannotPlay", kit::toString(event.kind), event.text);
    case Kind::NotPermitted:
        raise(kit::ErrorCode::NotPermitted, event.text);
    case Kind::NotASender:
    case Kind::Failed:
        py::module_::import("vellox._log")
            .attr("logger")
            .attr("warning")("%s: %s", toPython(m_name), toPython(event.text));
        break;
    case Kind::Joined:
    case Kind::Lost:
    case Kind::Stalled:
        break;
    }
}

void Consumer::checkOpen() const
{
    checkProcess(m_process);
    if (m_isClosed)
        raise(kit::ErrorCode::NotOpen, "the consumer is closed");
}

/// @return the item, if it is a frame, which has its format
std::optional<Frame> Consumer::accept(kit::ConsumerItem& item) const
{
    if (auto* const frame = std::get_if<Frame>(&item))
        return std::move(*frame);
    if (const auto* const event = std::get_if<kit::ConsumerEvent>(&item))
        handle(*event);
    return std::nullopt;
}

std::optional<Frame> Consumer::take()
{
    checkOpen();
    std::optional<Frame> frame;
    while (!frame)
    {
        auto item = m_consumer.read(std::chrono::nanoseconds(0));
        if (!item)
            break;
        frame = accept(*item);
    }
    return frame;
}

Frame Consumer::read(std::optional<double> timeout)
{
    const std::optional<double> seconds = timeout ? timeout : m_timeout;
    const std::chrono::nanoseconds limit = toNanoseconds(seconds);
    const Clock::time_point begin = Clock::now();
    handleSignals();
    for (;;)
    {
        if (auto frame = take())
            return std::move(*frame);
        std::chrono::nanoseconds rest = limit;
        if (seconds)
            rest = std::max(limit - (Clock::now() - begin), std::chrono::nanoseconds::zero());
        std::optional<kit::ConsumerItem> item;
        const bool isReady = waitFor(
            rest,
            [&](std::chrono::nanoseconds slice)
            {
                item = m_consumer.read(slice);
                return item || m_isClosed;
            });
        if (!isReady)
            raise(
                kit::ErrorCode::TimedOut, "no frame of \"" + m_name + "\" within " +
                                              std::string(py::str("{:g} s").format(*seconds)));
        if (!item)
            continue; // closed
        if (auto frame = accept(*item))
            return std::move(*frame);
    }
}

py::list Consumer::takeEvents()
{
    checkProcess(m_process);
    std::deque<kit::ConsumerEvent> events;
    {
        const std::lock_guard<std::mutex> lock(m_eventMutex);
        events.swap(m_events);
    }
    const py::object type = getType("Event");
    py::list list;
    for (const kit::ConsumerEvent& event : events)
        list.append(type(kit::toString(event.kind), event.time, toPython(event.text)));
    return list;
}

py::dict Consumer::getStatistics() const
{
    checkProcess(m_process);
    const kit::ConsumerStatistics counts = m_consumer.getStatistics();
    return py::dict(
        "state"_a = toString(counts.state), "frames"_a = counts.frames, "bytes"_a = counts.bytes,
        "dropped"_a = counts.dropped, "lost"_a = counts.lost, "gaps"_a = counts.gaps,
        "gap_ns"_a = counts.gapNs, "overlaps"_a = counts.overlaps, "sequences"_a = counts.sequences,
        "connections"_a = counts.connections, "reconnects"_a = counts.reconnects,
        "stalls"_a = counts.stalls, "join_ns"_a = counts.joinNs);
}

std::optional<TimeValue> Consumer::getStreamTime() const
{
    checkProcess(m_process);
    const TimeValue time = m_consumer.getStreamTime();
    return time != 0 ? std::optional(time) : std::nullopt;
}

int Consumer::getDescriptor()
{
    checkProcess(m_process);
    const int descriptor = m_consumer.getDescriptor();
    if (descriptor < 0)
        raise(kit::ErrorCode::OutOfResources, "no descriptor is left");
    return descriptor;
}

std::unique_ptr<Consumer> makeConsumer(
    const py::bytes& name,
    std::optional<double> timeout,
    bool isRaw,
    std::optional<uid_t> senderUser,
    const py::bytes& baseDirectory,
    std::optional<double> stallTimeout,
    std::optional<double> maxQueue,
    int realTime)
{
    static_cast<void>(toNanoseconds(timeout));
    const auto orZero = [](std::optional<double> seconds)
    { return seconds ? toNanoseconds(seconds) : std::chrono::nanoseconds(0); };
    return std::make_unique<Consumer>(
        kit::ConsumerOptions{
            .name = name,
            .baseDirectory = baseDirectory,
            .stallTimeout = orZero(stallTimeout),
            .realTime = {.use = static_cast<kit::RealTimeUse>(realTime)},
            .senderUser = senderUser,
            .queue = {.time = orZero(maxQueue)},
            .anyCodec = isRaw},
        timeout);
}

} // unnamed namespace

void addConsumer(py::module_& module)
{
    py::class_<Consumer>(module, "Consumer")
        .def(py::init(&makeConsumer))
        .def(
            "read", &Consumer::read, "timeout"_a = py::none(),
            "Returns the next Frame. Waits for it, and for a sender.\n\n"
            "timeout: seconds; None: the consumer's timeout.\n\n"
            "Raises TimedOut and Closed, and once per unusable sender CannotPlay or NotPermitted:\n"
            "the consumer keeps retrying, and can be read again.")
        .def("_take", &Consumer::take, "Returns the next Frame, or None if there is none yet.")
        .def("__iter__", [](const py::object& self) { return self; })
        .def(
            "__next__",
            [](Consumer& self)
            {
                if (self.isClosed())
                    throw py::stop_iteration();
                try
                {
                    return self.read(std::nullopt);
                }
                catch (py::error_already_set&)
                {
                    if (self.isClosed())
                        throw py::stop_iteration();
                    throw;
                }
            })
        .def(
            "close", &Consumer::close,
            "Leaves the stream. Reads in other threads end within 50 ms. Does nothing if closed.")
        .def(
            "events", &Consumer::takeEvents,
            "Returns a list of the Events since the last call, at most 1,000.")
        .def("_statistics", &Consumer::getStatistics)
        .def(
            "stream_time", &Consumer::getStreamTime,
            "Returns the current time of the stream's clock, nanoseconds; None while it is "
            "unknown.")
        .def(
            "fileno", &Consumer::getDescriptor,
            "Returns a descriptor for select and event loops, readable while something waits to\n"
            "be read. Raises Error if no descriptor is left.")
        .def_property_readonly("closed", &Consumer::isClosed, "Whether close() was called.");
}

} // namespace vlx::python
