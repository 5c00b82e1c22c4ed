#include <atomic>
#include <bit>
#include <cstring>
#include <mutex>
#include <thread>

#include <miscUtils/MiscUtils.hpp>
#include <vlxkit/Pace.hpp>
#include <vlxkit/Producer.hpp>

#include "Support.hpp"

namespace vlx::python
{

namespace
{

using namespace py::literals;
using std::chrono::nanoseconds;

constexpr TimeValue LongLateNs = 1'000'000'000;
// From this size on, the GIL is released during the copy.
constexpr std::size_t LargeBytes = 65'536;
constexpr nanoseconds MaxTail = std::chrono::milliseconds(400);
// Between looks for receivers.
constexpr nanoseconds CheckInterval = std::chrono::milliseconds(5);

/// Access to the bytes of an object, which it keeps alive.
class BufferView
{
public:
    explicit BufferView(const py::object& object)
    {
        if (PyObject_GetBuffer(object.ptr(), &m_view, PyBUF_C_CONTIGUOUS | PyBUF_FORMAT) != 0)
            throw py::error_already_set();
    }

    ~BufferView()
    {
        PyBuffer_Release(&m_view);
    }

    BufferView(const BufferView&) = delete;
    BufferView& operator=(const BufferView&) = delete;

    ByteView getBytes() const
    {
        return {static_cast<const std::uint8_t*>(m_view.buf), static_cast<std::size_t>(m_view.len)};
    }

    bool hasDimensions(int number) const
    {
        return m_view.ndim == number;
    }

    /// @return whether the dimension is missing, or has this length
    bool hasLength(int dimension, std::size_t length) const
    {
        return m_view.ndim <= dimension ||
               static_cast<std::size_t>(m_view.shape[dimension]) == length;
    }

    /// @return whether the values have this size and byte order, and one of these types
    bool holds(const char* codes, std::size_t size, bool isBig) const
    {
        const char* format = m_view.format != nullptr ? m_view.format : "B";
        bool hasOrder = size == 1 || isBig == (std::endian::native == std::endian::big);
        if (std::strchr("@=<>!", *format) != nullptr && *format != '\0')
        {
            if (*format != '@' && *format != '=')
                hasOrder = size == 1 || isBig == (*format != '<');
            ++format;
        }
        return hasOrder && static_cast<std::size_t>(m_view.itemsize) == size &&
               std::strlen(format) == 1 && std::strchr(codes, *format) != nullptr;
    }

private:
    Py_buffer m_view{};
};

/// @throws ErrorCode::InvalidArgument unless the object holds whole samples of the format
void checkSamples(const BufferView& view, const kit::StreamFormat& format, const py::object& object)
{
    const SampleType& type = getSampleType(format);
    const bool isBig = *type.dtype == '>';
    const std::size_t size = audioUtils::bytesPerSample(format.sampleFormat) / type.numParts;
    const bool isFlat = view.hasDimensions(1);
    const bool isShaped = view.hasDimensions(type.numParts > 1 ? 3 : 2) &&
                          view.hasLength(1, format.channels) && view.hasLength(2, type.numParts);
    const bool fits = (isFlat && view.holds("Bc", 1, false)) ||
                      ((isFlat || isShaped) && view.holds(type.codes, size, isBig));
    const std::size_t numBytes = view.getBytes().size();
    if (fits && numBytes % format.getBytesPerSample() == 0)
        return;
    const py::memoryview given(object);
    raise(
        kit::ErrorCode::InvalidArgument,
        std::string(
            py::str("a frame of \"{}\" is {} of shape (samples, {}{}), or whole samples of {} "
                    "bytes; not {} bytes of type \"{}\" and shape {}")
                .format(
                    kit::toText(format), py::dtype(type.dtype), format.channels,
                    type.numParts > 1 ? ", 3" : "", format.getBytesPerSample(), numBytes,
                    given.attr("format"), given.attr("shape"))));
}

/// A producer of the kit, open from construction until it is closed. The GIL guards what has no
/// lock of its own.
class Producer
{
public:
    Producer(kit::ProducerOptions options, const kit::StreamFormat& format);
    Producer(kit::ProducerOptions options, std::uint32_t fourcc, const ByteView& header);
    ~Producer();

    Producer(const Producer&) = delete;
    Producer& operator=(const Producer&) = delete;

    void send(
        const py::object& data,
        std::optional<TimeValue> timestamp,
        std::optional<TimeValue> duration);
    py::array acquire(std::size_t count);
    void waitForReceivers(std::size_t count, std::optional<double> timeout);
    void close();
    py::dict getStatistics() const;

    const std::string& getName() const
    {
        return m_producer.getName();
    }

    bool isClosed() const
    {
        return m_isClosed;
    }

private:
    template <typename Content>
    void open(Content& content);
    void checkUsable() const;
    TimeValue waitUntilDue(TimeValue duration);

    const pid_t m_process = ::getpid();
    const std::optional<kit::StreamFormat> m_format;
    std::optional<kit::PlainPayloader> m_payloader; // of another codec
    std::atomic<bool> m_isClosed = false;
    kit::Pace m_pace;
    bool m_hasPace = false;
    std::uint64_t m_numLate = 0;

    // Never block on it while holding the GIL; its holder may wait for the GIL.
    std::mutex m_mutex;
    kit::Producer m_producer;       // guarded by m_mutex, except calls from any thread
    Clock::time_point m_lastSent{}; // guarded by m_mutex
    nanoseconds m_lastDuration{};   // guarded by m_mutex
};

Producer::Producer(kit::ProducerOptions options, const kit::StreamFormat& format)
    : m_format(format), m_pace(format.rate), m_producer(std::move(options))
{
    open(format);
}

Producer::Producer(kit::ProducerOptions options, std::uint32_t fourcc, const ByteView& header)
    : m_payloader(std::in_place, fourcc, header), m_producer(std::move(options))
{
    open(*m_payloader);
}

template <typename Content>
void Producer::open(Content& content)
{
    kit::Status status;
    {
        const WithoutGil unlocked;
        status = m_producer.open(content);
    }
    check(status);
}

Producer::~Producer()
{
    close();
}

void Producer::close()
{
    m_isClosed = true;
    const WithoutGil unlocked;
    std::unique_lock<std::mutex> lock(m_mutex, std::defer_lock);
    if (m_process == ::getpid())
    {
        lock.lock();
        // The end of a long frame has left long before the frame's duration has passed.
        if (m_lastDuration > MaxTail)
        {
            std::this_thread::sleep_until(m_lastSent + MaxTail);
            m_producer.stop();
        }
    }
    m_producer.close();
}

void Producer::checkUsable() const
{
    checkProcess(m_process);
    if (m_isClosed)
        raise(kit::ErrorCode::NotOpen, "the producer is closed");
}

/// @return timestamp of the next frame
TimeValue Producer::waitUntilDue(TimeValue duration)
{
    using miscUtils::getMonotonicSysclockTime;
    TimeValue now = getMonotonicSysclockTime();
    if (!m_hasPace)
        m_pace.begin(now);
    m_hasPace = true;
    if (const TimeValue due = m_pace.getDueTime(); due > now)
    {
        waitFor(
            nanoseconds(due - now),
            [this](nanoseconds slice)
            {
                std::this_thread::sleep_for(slice);
                return m_isClosed.load();
            });
        checkUsable();
        now = getMonotonicSysclockTime();
    }
    const TimeValue timestamp = m_pace.getTimestamp();
    if (now <= timestamp + duration)
        return timestamp;
    ++m_numLate;
    if (now > timestamp + LongLateNs)
        m_pace.begin(now);
    return m_pace.getTimestamp();
}

void Producer::send(
    const py::object& data,
    std::optional<TimeValue> timestamp,
    std::optional<TimeValue> duration)
{
    checkUsable();
    deliverLog();
    const BufferView view(data);
    const ByteView bytes = view.getBytes();
    std::uint64_t numSamples = 0;
    if (m_format)
    {
        checkSamples(view, *m_format, data);
        numSamples = bytes.size() / m_format->getBytesPerSample();
        const TimeValue length = m_format->toNanoseconds(numSamples);
        if (timestamp)
            m_pace.begin(*timestamp);
        else
            timestamp = waitUntilDue(length);
        m_hasPace = true;
        duration = duration ? duration : m_pace.getDuration(numSamples);
        m_pace.advance(numSamples, miscUtils::getMonotonicSysclockTime());
    }
    const TimeValue stamp = timestamp.value_or(miscUtils::getMonotonicSysclockTime());
    kit::Status status;
    {
        std::optional<WithoutGil> unlocked; // longer than the lock
        std::unique_lock<std::mutex> lock(m_mutex, std::try_to_lock);
        if (!lock || bytes.size() >= LargeBytes)
            unlocked.emplace();
        if (!lock)
            lock.lock();
        status = m_producer.send(stamp, duration.value_or(0), bytes);
        m_lastSent = Clock::now();
        m_lastDuration = nanoseconds(duration.value_or(0));
    }
    check(status);
}

py::array Producer::acquire(std::size_t count)
{
    checkUsable();
    const std::size_t size = m_format ? count * m_format->getBytesPerSample() : count;
    auto memory = std::make_unique<kit::FrameMemory>(m_producer.acquire(size));
    const void* const data = memory->data.get();
    const py::capsule owner(
        memory.release(), [](void* owned) { delete static_cast<kit::FrameMemory*>(owned); });
    if (m_format)
        return makeArray(*m_format, data, size, owner);
    return {py::dtype("u1"), {static_cast<py::ssize_t>(size)}, data, owner};
}

void Producer::waitForReceivers(std::size_t count, std::optional<double> timeout)
{
    checkUsable();
    kit::Status status;
    waitFor(
        toNanoseconds(timeout),
        [&](nanoseconds slice)
        {
            {
                const std::lock_guard<std::mutex> lock(m_mutex);
                status = m_producer.waitForReceivers(count, nanoseconds::zero());
            }
            if (status.getCode() != kit::ErrorCode::TimedOut)
                return true;
            // Without the lock: other threads send.
            std::this_thread::sleep_for(std::min(slice, CheckInterval));
            return false;
        });
    check(status);
}

py::dict Producer::getStatistics() const
{
    checkProcess(m_process);
    const kit::ProducerStatistics counts = m_producer.getStatistics();
    return py::dict(
        "frames"_a = counts.frames, "bytes"_a = counts.bytes, "sequences"_a = counts.sequences,
        "receivers"_a = counts.receivers, "late"_a = m_numLate);
}

/// Options that both kinds of streams have.
kit::ProducerOptions makeOptions(
    const py::bytes& name,
    const py::bytes& alternativeName,
    const py::bytes& baseDirectory,
    int socketMode,
    int carriage,
    std::size_t frameBytes,
    int realTime)
{
    return {
        .name = name,
        .alternativeName = alternativeName,
        .socketMode = static_cast<kit::SocketMode>(socketMode),
        .baseDirectory = baseDirectory,
        .realTime = {.use = static_cast<kit::RealTimeUse>(realTime)},
        .sharedMemory = {
            .carriage = static_cast<kit::Carriage>(carriage), .frameBytes = frameBytes}};
}

} // unnamed namespace

void addProducer(py::module_& module)
{
    py::class_<kit::ProducerOptions>(module, "ProducerOptions").def(py::init(&makeOptions));
    py::class_<Producer>(module, "Producer")
        .def(py::init(
            [](const kit::ProducerOptions& options, const std::string& format, std::uint32_t rate,
               std::uint32_t channels)
            {
                return std::make_unique<Producer>(
                    options, kit::StreamFormat{toSampleFormat(format), rate, channels});
            }))
        .def(py::init(
            [](const kit::ProducerOptions& options, const std::string& fourcc,
               const std::string& header)
            {
                if (fourcc.size() != sizeof(std::uint32_t))
                    raise(kit::ErrorCode::InvalidArgument, "a FourCC has four characters");
                std::uint32_t code = 0;
                for (std::size_t i = 0; i < fourcc.size(); ++i)
                    code |= static_cast<std::uint32_t>(static_cast<std::uint8_t>(fourcc[i]))
                            << (8 * i);
                const auto* const bytes = reinterpret_cast<const std::uint8_t*>(header.data());
                return std::make_unique<Producer>(options, code, ByteView(bytes, header.size()));
            }))
        .def(
            "send", &Producer::send, "data"_a, py::kw_only(), "timestamp"_a = py::none(),
            "duration"_a = py::none(),
            "Sends one frame. The module adds no copy.\n\n"
            "data: a C-contiguous buffer in the stream's format and byte order, of shape\n"
            "    (samples, channels), or interleaved in one dimension; packed 24-bit samples are\n"
            "    uint8 of shape (samples, channels, 3). Every format accepts bytes.\n"
            "timestamp: nanoseconds of time.monotonic_ns(); sends at once. None: continues after\n"
            "    the samples sent so far, and waits until the frame is due. After a delay, frames\n"
            "    are sent at twice the pace; after more than a second, timestamps restart at the\n"
            "    current time, with a gap. With codecs other than PCM, None means the current\n"
            "    time, and sends at once.\n"
            "duration: nanoseconds; None: that of the samples; 0 for codecs other than PCM.\n\n"
            "Raises InvalidArgument and Closed.")
        .def(
            "acquire", &Producer::acquire, "count"_a,
            "Returns a writable array for one frame, in shared memory if the stream uses it. Fill\n"
            "it and send it. Do not change it afterwards.\n\n"
            "count: samples, for an array of shape (count, channels), or (count, channels, 3) for\n"
            "packed 24-bit samples; bytes for codecs other than PCM.\n\n"
            "Raises Closed.")
        .def(
            "wait_for_receivers", &Producer::waitForReceivers, "count"_a = 1,
            "timeout"_a = py::none(),
            "Waits until a number of receivers have joined.\n\n"
            "timeout: seconds; None: no limit.\n\n"
            "Raises TimedOut and Closed.")
        .def(
            "close", &Producer::close,
            "Waits until the last frame has left, 100 to 500 ms, and closes the stream. Does\n"
            "nothing if closed.")
        .def("_statistics", &Producer::getStatistics)
        .def_property_readonly(
            "name", [](const Producer& self) { return toPython(self.getName()); },
            "Name under which the stream was opened.")
        .def_property_readonly("closed", &Producer::isClosed, "Whether close() was called.");
}

} // namespace vlx::python
