// vlxsink sends raw audio, with caps and timestamps, to any number of other processes. Receivers
// may come and go; the sink never waits for them. A receiver is vlxsrc, or `vlx receive`.
//
//   gst-launch-1.0 audiotestsrc ! audio/x-raw,rate=48000,channels=2 ! vlxsink socket-name=kitchen
//   gst-launch-1.0 vlxsrc socket-name=kitchen ! audioconvert ! autoaudiosink
//
// The sink opens the stream when it prerolls. By default preroll lasts until a receiver has joined,
// so that the receiver gets the beginning. Each buffer is sent when it is due, stamped with that
// time: base time, running time and latency, on the announced clock.
//
// In "pubsub" a receiver loses frames that it cannot take at once, so the sink never sends faster
// than at twice the speed, not even with sync=false. "pipeline" has one receiver and waits for it.
//
// With shared-memory=always or auto, large frames arrive far sooner, but only receivers of the kit
// can read them, such as vlxsrc and `vlx receive`. Upstream elements can fill the memory that is
// sent, without a copy.
//
// A seek with another rate changes the timestamps' spacing, not the samples or their durations: put
// scaletempo before the sink.

#include "VlxSink.hpp"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include <gst/base/gstbasesink.h>
#include <gst/net/gstnet.h>

#include <miscUtils/MiscUtils.hpp>
#include <vlxkit/Pace.hpp>
#include <vlxkit/Producer.hpp>

#include "Caps.hpp"
#include "Clocks.hpp"
#include "ElementType.hpp"
#include "FrameAllocator.hpp"
#include "LogBridge.hpp"

GST_DEBUG_CATEGORY_STATIC(vlxsink_debug);
#define GST_CAT_DEFAULT vlxsink_debug

namespace vlx::gst
{

namespace
{

enum class ClockChoice
{
    Auto,
    SysClock,
    GstNetClock,
};

struct Settings
{
    std::string name;
    std::string alternativeName;
    int protocol = static_cast<int>(NanomsgProtocol::PubSub);
    int socketMode = static_cast<int>(kit::SocketMode::Owner);
    int realtimePriority = 0;
    int clock = static_cast<int>(ClockChoice::Auto);
    std::string clockAddress;
    int clockPort = 0;
    bool serveClock = false;
    bool waitForConnection = true;
    int sharedMemory = static_cast<int>(kit::Carriage::Inline);
};

/// What the timestamps stand on, and where receivers find it.
struct Announcement
{
    TimeSyncProtocol protocol = TimeSyncProtocol::MonotonicSystemClock;
    ClockEndpoint endpoint;
    GstClock* served = nullptr; // for comparison only

    bool operator==(const Announcement&) const = default;
};

class Sink : public WithSettings<Settings>
{
public:
    explicit Sink(GstBaseSink* element)
        : WithSettings(element), m_element(element), m_providedClock(GST_ELEMENT(element))
    {
        // Nothing is rendered here; whoever does that has a deadline of its own.
        gst_base_sink_set_processing_deadline(element, 0);
    }

    static void initClass(gpointer elementClass);
    GstStructure* makeStatistics() const;

    void setUpClock();
    ProvidedClock& getProvidedClock()
    {
        return m_providedClock;
    }

    // READY to PAUSED and back. GstBaseSink's own start and stop belong to NULL, which is too early
    // for properties that are set in READY.
    bool onStart();
    void onStop();

    bool setCaps(GstCaps* caps);
    bool proposeAllocation(GstQuery* query) const;
    GstFlowReturn render(GstBuffer* buffer);

    // Makes the stream ready for a buffer. Called with the preroll lock held, like render().
    GstFlowReturn prepare(GstBuffer* buffer);

    // From another thread, while one of the above may be waiting.
    bool unlock();
    bool unlockStop();

private:
    bool isUnlocked() const;
    bool noteUnlocks();
    GstFlowReturn waitForUnlockStop();
    GstFlowReturn fail(const std::string& problem);
    GstFlowReturn fail(const kit::Status& status);
    std::optional<Announcement> chooseClock(const Settings& settings) const;
    bool serveClock(GstClock* clock, const Settings& settings);
    GstFlowReturn
    open(const Settings& settings, const Announcement& announcement, GstBuffer* first);
    GstFlowReturn openOrAdapt(GstBuffer* buffer);
    GstFlowReturn waitForReceiver();
    void dropProducer();
    GstFlowReturn send(GstBuffer* buffer, const ByteView& data);
    TimeValue makeTimestamp(GstBuffer* buffer) const;
    void waitForTurn();

    GstBaseSink* const m_element;
    ProvidedClock m_providedClock;
    FrameAllocator m_allocator;

    // Streaming thread, or state changes while there is none.
    kit::StreamFormat m_format;
    std::optional<kit::StreamFormat> m_announcedFormat;
    Announcement m_announcement;
    ObjectPtr<GstNetTimeProvider> m_provider;
    PipelineClock m_clock; // that the announcement was chosen for
    bool m_joined = false;
    kit::Pace m_pace; // after the first frame

    mutable std::mutex m_mutex;
    std::condition_variable m_condition;
    // Guarded by m_mutex. The streaming thread changes the producer, and uses it without.
    std::unique_ptr<kit::Producer> m_producer;
    kit::ProducerStatistics m_earlier; // of producers before the present one
    bool m_unlocked = false;           // between unlock() and unlockStop()
    bool m_interrupted = false;        // by unlock(), until the next wait begins
};

GstStructure* Sink::makeStatistics() const
{
    kit::ProducerStatistics now;
    const std::lock_guard lock(m_mutex);
    if (m_producer)
        now = m_producer->getStatistics();
    return gst_structure_new(
        "application/x-vlxsink-stats", "frames", G_TYPE_UINT64,
        static_cast<guint64>(m_earlier.frames + now.frames), "bytes", G_TYPE_UINT64,
        static_cast<guint64>(m_earlier.bytes + now.bytes), "receivers", G_TYPE_UINT,
        static_cast<guint>(now.receivers), "sequences", G_TYPE_UINT64,
        static_cast<guint64>(m_earlier.sequences + now.sequences), nullptr);
}

// An announced network clock must be the timestamps' clock: provide it to the pipeline.
void Sink::setUpClock()
{
    const Settings settings = getSettings();
    if (settings.clock == static_cast<int>(ClockChoice::GstNetClock) && !settings.serveClock)
        m_providedClock.offer(
            {settings.clockAddress, static_cast<std::uint16_t>(settings.clockPort)});
}

bool Sink::onStart()
{
    forwardLibraryLog();
    m_pace.begin(0);
    {
        const std::lock_guard lock(m_mutex);
        m_earlier = {};
        m_unlocked = false;
    }
    return checkName(m_element, getSettings().name);
}

void Sink::onStop()
{
    // After this, closing takes 100 ms at most, which the last frame needs to leave.
    if (m_producer)
        m_producer->stop();
    dropProducer();
    m_clock.set(nullptr);
}

bool Sink::setCaps(GstCaps* caps)
{
    const auto format = toStreamFormat(caps);
    if (!format)
        return false;
    GST_INFO_OBJECT(m_element, "format %s", toText(*format).c_str());
    m_format = *format;
    m_pace.changeRate(m_format.rate);
    return true;
}

bool Sink::proposeAllocation(GstQuery* query) const
{
    if (getSettings().sharedMemory == static_cast<int>(kit::Carriage::Inline))
        return false;
    gst_query_add_allocation_param(query, m_allocator.get(), nullptr);
    return true;
}

void Sink::dropProducer()
{
    m_allocator.setProducer(nullptr);
    m_provider.reset();
    m_announcedFormat.reset();
    m_joined = false;
    if (!m_producer)
        return;
    m_producer->close();
    const kit::ProducerStatistics last = m_producer->getStatistics();
    const std::lock_guard lock(m_mutex);
    m_earlier.frames += last.frames;
    m_earlier.bytes += last.bytes;
    m_earlier.sequences += last.sequences;
    m_producer.reset();
}

bool Sink::unlock()
{
    const std::lock_guard lock(m_mutex);
    m_unlocked = true;
    m_interrupted = true;
    if (m_producer)
        m_producer->interrupt(true);
    m_condition.notify_all();
    return true;
}

bool Sink::unlockStop()
{
    const std::lock_guard lock(m_mutex);
    m_unlocked = false;
    m_condition.notify_all();
    return true;
}

// Whether a wait must end: even if unlockStop() has followed already.
bool Sink::isUnlocked() const
{
    const std::lock_guard lock(m_mutex);
    return m_interrupted;
}

// Begins a wait, with the preroll lock held: earlier unlocks are over, except one whose caller
// waits for that lock.
bool Sink::noteUnlocks()
{
    const std::lock_guard lock(m_mutex);
    if (m_unlocked)
        return true;
    m_interrupted = false;
    if (m_producer)
        m_producer->interrupt(false);
    return false;
}

GstFlowReturn Sink::waitForUnlockStop()
{
    std::unique_lock lock(m_mutex);
    m_condition.wait(lock, [this] { return !m_unlocked; });
    return GST_FLOW_FLUSHING;
}

GstFlowReturn Sink::fail(const std::string& problem)
{
    dropProducer();
    GST_ELEMENT_ERROR(
        m_element, RESOURCE, OPEN_WRITE, ("The stream cannot be sent: %s.", problem.c_str()),
        (nullptr));
    return GST_FLOW_ERROR;
}

GstFlowReturn Sink::fail(const kit::Status& status)
{
    return status.getCode() == kit::ErrorCode::Interrupted ? GST_FLOW_FLUSHING
                                                           : fail(status.getText());
}

std::optional<Announcement> Sink::chooseClock(const Settings& settings) const
{
    Announcement result;
    const auto& followed = m_clock.getProvider();
    const bool serves = settings.serveClock && m_clock.get() != nullptr;
    const auto choice = static_cast<ClockChoice>(settings.clock);
    const bool isNet =
        choice == ClockChoice::GstNetClock || (choice == ClockChoice::Auto && (followed || serves));
    if (serves)
        result.served = m_clock.get();
    if (!isNet)
        return result;

    result.protocol = TimeSyncProtocol::GstNetClock;
    if (followed && !serves)
        result.endpoint = *followed;
    if (!settings.clockAddress.empty())
        result.endpoint.address = settings.clockAddress;
    else if (serves)
        result.endpoint.address = "127.0.0.1";
    if (settings.clockPort != 0)
        result.endpoint.port = static_cast<std::uint16_t>(settings.clockPort);
    if (!serves && (result.endpoint.address.empty() || result.endpoint.port == 0))
        return std::nullopt;
    return result;
}

bool Sink::serveClock(GstClock* clock, const Settings& settings)
{
    const char* const address =
        settings.clockAddress.empty() ? "127.0.0.1" : settings.clockAddress.c_str();
    m_provider.reset(gst_net_time_provider_new(clock, address, settings.clockPort));
    return m_provider != nullptr;
}

GstFlowReturn
Sink::open(const Settings& settings, const Announcement& announcement, GstBuffer* first)
{
    ClockEndpoint endpoint = announcement.endpoint;
    if (announcement.served != nullptr)
    {
        if (!serveClock(announcement.served, settings))
            return fail("the clock cannot be served at the wanted address and port");
        gint port = 0;
        g_object_get(m_provider.get(), "port", &port, nullptr);
        if (announcement.protocol == TimeSyncProtocol::GstNetClock)
            endpoint.port = static_cast<std::uint16_t>(port);
    }

    kit::ProducerOptions options;
    options.name = settings.name;
    options.alternativeName = settings.alternativeName;
    options.protocol = static_cast<NanomsgProtocol>(settings.protocol);
    options.clock = announcement.protocol;
    options.clockAddress = endpoint.address;
    options.clockPort = endpoint.port;
    options.socketMode = static_cast<kit::SocketMode>(settings.socketMode);
    options.sharedMemory.carriage = static_cast<kit::Carriage>(settings.sharedMemory);
    options.sharedMemory.frameDuration = std::chrono::nanoseconds(
        m_format.toNanoseconds(gst_buffer_get_size(first) / m_format.getBytesPerSample()));
    if (settings.realtimePriority > 0)
        options.realTime = {kit::RealTimeUse::Try, settings.realtimePriority};
    options.onNotice = [this](const std::string& notice)
    { GST_ELEMENT_WARNING(m_element, RESOURCE, SETTINGS, ("%s", notice.c_str()), (nullptr)); };
    {
        const std::lock_guard lock(m_mutex);
        m_producer = std::make_unique<kit::Producer>(std::move(options));
        m_producer->interrupt(m_interrupted);
    }
    if (const kit::Status status = m_producer->open(m_format); !status)
    {
        dropProducer();
        return fail(status);
    }

    m_allocator.setProducer(m_producer.get());
    m_announcement = announcement;
    m_announcedFormat = m_format;
    GST_INFO_OBJECT(
        m_element, "\"%s\" is open on %s", m_producer->getName().c_str(),
        toString(announcement.protocol));
    return GST_FLOW_OK;
}

// The stream is opened anew when the clock that it announces is no longer that of its timestamps.
GstFlowReturn Sink::openOrAdapt(GstBuffer* buffer)
{
    const Settings settings = getSettings();
    m_clock.set(findClock(GST_ELEMENT(m_element)));
    const auto announcement = chooseClock(settings);
    if (!announcement)
        return fail("a network clock is wanted, but the pipeline has none; set \"clock-address\" "
                    "and \"clock-port\", or \"serve-clock\"");
    if (m_producer && m_announcement != *announcement)
    {
        GST_INFO_OBJECT(m_element, "opening again, with the pipeline's present clock");
        dropProducer();
    }
    if (!m_producer)
        return open(settings, *announcement, buffer);
    if (m_announcedFormat == m_format)
        return GST_FLOW_OK;
    if (const kit::Status status = m_producer->setFormat(m_format); !status)
        return fail(status);
    m_announcedFormat = m_format;
    return GST_FLOW_OK;
}

GstFlowReturn Sink::waitForReceiver()
{
    if (m_joined)
        return GST_FLOW_OK;
    if (getSettings().waitForConnection)
    {
        if (const kit::Status status = m_producer->waitForReceivers(1); !status)
            return fail(status);
    }
    m_joined = true;
    return GST_FLOW_OK;
}

// Slow steps run without the preroll lock, which a state change needs. A thread that ends such a
// step holds the lock meanwhile, and has recorded the reason when we get the lock back.
GstFlowReturn Sink::prepare(GstBuffer* buffer)
{
    for (;;)
    {
        if (m_element->flushing != FALSE)
            return GST_FLOW_FLUSHING;
        const ObjectPtr<GstClock> clock(gst_element_get_clock(GST_ELEMENT(m_element)));
        if (!isUnlocked() && m_joined && clock && clock.get() == m_clock.get() &&
            m_announcedFormat == m_format)
            return GST_FLOW_OK;

        const bool pending = noteUnlocks();
        GST_BASE_SINK_PREROLL_UNLOCK(m_element);
        GstFlowReturn flow = pending ? waitForUnlockStop() : openOrAdapt(buffer);
        if (flow == GST_FLOW_OK)
            flow = waitForReceiver();
        GST_BASE_SINK_PREROLL_LOCK(m_element);
        if (flow != GST_FLOW_FLUSHING)
            return m_element->flushing != FALSE ? GST_FLOW_FLUSHING : flow;
    }
}

TimeValue Sink::makeTimestamp(GstBuffer* buffer) const
{
    const GstSegment& segment = m_element->segment;
    const GstClockTime runningTime =
        segment.format == GST_FORMAT_TIME && GST_BUFFER_PTS_IS_VALID(buffer)
            ? gst_segment_to_running_time(&segment, GST_FORMAT_TIME, GST_BUFFER_PTS(buffer))
            : GST_CLOCK_TIME_NONE;
    GstClock* const clock = m_clock.get();
    const bool isSystemTime = m_announcement.protocol == TimeSyncProtocol::MonotonicSystemClock;
    if (!GST_CLOCK_TIME_IS_VALID(runningTime))
    {
        if (m_pace.getTimestamp() != 0)
            return m_pace.getTimestamp();
        return isSystemTime || clock == nullptr ? miscUtils::getMonotonicSysclockTime()
                                                : gst_clock_get_time(clock);
    }

    // A pipeline on another clock than the announced one: by way of the monotonic clock.
    std::int64_t shift = gst_base_sink_get_ts_offset(m_element);
    const ObjectPtr<GstClock> named = m_providedClock.get();
    const bool isOther = clock != nullptr && clock != named.get();
    if (isOther && (isSystemTime || named))
        shift -= m_clock.getOffset();
    if (isOther && named && !isSystemTime)
        shift += measureOffset(named.get());
    return gst_element_get_base_time(GST_ELEMENT(m_element)) + runningTime +
           gst_base_sink_get_latency(m_element) + static_cast<TimeValue>(shift);
}

// Receivers would lose a part of a burst. A pipeline that catches up after a delay therefore sends
// at most at twice the speed. A condition variable would enter the kernel even for a time that has
// passed.
void Sink::waitForTurn()
{
    const std::chrono::nanoseconds earliest(m_pace.getEarliestTime());
    const std::chrono::steady_clock::time_point due(earliest);
    if (std::chrono::steady_clock::now() >= due)
        return;
    std::unique_lock lock(m_mutex);
    m_condition.wait_until(lock, due, [this] { return m_interrupted; });
}

GstFlowReturn Sink::send(GstBuffer* buffer, const ByteView& data)
{
    const TimeValue timestamp = makeTimestamp(buffer);
    waitForTurn();
    if (timestamp != m_pace.getTimestamp())
        m_pace.begin(timestamp);
    const std::size_t samples = data.size() / m_format.getBytesPerSample();
    const TimeValue duration = GST_BUFFER_DURATION_IS_VALID(buffer) ? GST_BUFFER_DURATION(buffer)
                                                                    : m_pace.getDuration(samples);
    if (const kit::Status status = m_producer->send(timestamp, duration, data); !status)
        return fail(status);
    m_pace.advance(samples, miscUtils::getMonotonicSysclockTime());
    return GST_FLOW_OK;
}

GstFlowReturn Sink::render(GstBuffer* buffer)
{
    GstMapInfo map;
    if (gst_buffer_map(buffer, &map, GST_MAP_READ) == FALSE)
    {
        GST_ELEMENT_ERROR(m_element, RESOURCE, READ, (nullptr), ("A buffer cannot be mapped."));
        return GST_FLOW_ERROR;
    }
    Buffer copy;
    ByteView data(map.data, map.size);
    if (!FrameAllocator::seal(buffer))
    {
        copy.assign(data.begin(), data.end());
        data = copy;
    }
    GstFlowReturn flow = GST_FLOW_OK;
    bool done = false;
    while (flow == GST_FLOW_OK && !done)
    {
        flow = prepare(buffer);
        if (flow != GST_FLOW_OK)
            break;
        if (m_element->need_preroll != FALSE)
        {
            // Paused meanwhile: the state change is completed here, and may change the clock.
            flow = gst_base_sink_do_preroll(m_element, GST_MINI_OBJECT_CAST(buffer));
            continue;
        }
        flow = send(buffer, data);
        done = flow == GST_FLOW_OK;
        // Paused: the same buffer again when it goes on. Flushed: it is dropped.
        if (flow == GST_FLOW_FLUSHING && m_element->flushing == FALSE)
            flow = GST_FLOW_OK;
    }
    gst_buffer_unmap(buffer, &map);
    return flow;
}

// From here on: the element as GObject knows it.

using Type = ElementType<Sink, GstBaseSink>;

GType getProtocolType()
{
    static const GEnumValue values[] = {
        {static_cast<gint>(NanomsgProtocol::PubSub),
         "Any number of receivers; the sender never waits", "pubsub"},
        {static_cast<gint>(NanomsgProtocol::Pipeline), "One receiver; the sender waits for it",
         "pipeline"},
        {0, nullptr, nullptr}};
    static const GType type = g_enum_register_static("GstVlxProtocol", values);
    return type;
}

GType getSocketModeType()
{
    static const GEnumValue values[] = {
        {static_cast<gint>(kit::SocketMode::Owner), "Receivers of the same user", "owner"},
        {static_cast<gint>(kit::SocketMode::Group), "Receivers of the same group, too", "group"},
        {static_cast<gint>(kit::SocketMode::All), "Receivers of every user", "all"},
        {0, nullptr, nullptr}};
    static const GType type = g_enum_register_static("GstVlxSocketMode", values);
    return type;
}

GType getClockType()
{
    static const GEnumValue values[] = {
        {static_cast<gint>(ClockChoice::Auto),
         "gstnetclock if the pipeline's clock follows a network or is served, else sysclock",
         "auto"},
        {static_cast<gint>(ClockChoice::SysClock), "The machine's monotonic clock", "sysclock"},
        {static_cast<gint>(ClockChoice::GstNetClock), "A network clock", "gstnetclock"},
        {0, nullptr, nullptr}};
    static const GType type = g_enum_register_static("GstVlxClock", values);
    return type;
}

GType getSharedMemoryType()
{
    static const GEnumValue values[] = {
        {static_cast<gint>(kit::Carriage::Inline), "Every receiver can read the frames", "never"},
        {static_cast<gint>(kit::Carriage::Shared),
         "Receivers of the kit with the same /dev/shm can read the frames", "always"},
        {static_cast<gint>(kit::Carriage::Automatic),
         "always if the first frame has at least 8192 bytes, else never", "auto"},
        {0, nullptr, nullptr}};
    static const GType type = g_enum_register_static("GstVlxSharedMemory", values);
    return type;
}

// A flat table.
void installProperties(gpointer elementClass)
{
    auto& properties = Sink::getProperties();
    properties.begin(elementClass);
    properties.addText(
        "alternative-socket-name", &Settings::alternativeName,
        "Name to use if another sender holds the first; empty: opening fails instead");
    properties.addChoice(
        "protocol", &Settings::protocol, getProtocolType(), "Transport to the receivers");
    properties.addChoice(
        "socket-mode", &Settings::socketMode, getSocketModeType(),
        "Users whose receivers may join; they could also terminate this process");
    properties.addChoice(
        "clock", &Settings::clock, getClockType(),
        "Clock of the timestamps, which is announced to receivers");
    properties.addText(
        "clock-address", &Settings::clockAddress,
        "Announced address of the network clock, which gstnetclock then provides to the pipeline; "
        "empty: that of the pipeline's clock, or 127.0.0.1 with serve-clock");
    properties.addNumber(
        "clock-port", &Settings::clockPort, 65535,
        "Announced UDP port of the network clock; 0: that of the pipeline's clock, or a free one "
        "with serve-clock");
    properties.addFlag(
        "serve-clock", &Settings::serveClock, Mutability::Stopped,
        "Serve the pipeline's clock on the network, for receivers to follow");
    properties.addFlag(
        "wait-for-connection", &Settings::waitForConnection, Mutability::Stopped,
        "Stay in preroll until the first receiver has joined");
    properties.addChoice(
        "shared-memory", &Settings::sharedMemory, getSharedMemoryType(),
        "Put frames into shared memory, at most 64 MiB: large frames then arrive sooner");
    properties.addStatistics("Frames and bytes sent, receivers, sequences");
}

} // unnamed namespace

// A flat table.
void Sink::initClass(gpointer elementClass)
{
    GST_DEBUG_CATEGORY_INIT(vlxsink_debug, "vlxsink", 0, "Vellox sink");
    describeElement(
        elementClass, "Vellox sink", "Sink/Audio",
        "Sends timestamped audio to any number of processes of this machine", GST_PAD_SINK);
    installProperties(elementClass);

    auto* const sinkClass = GST_BASE_SINK_CLASS(elementClass);
    sinkClass->set_caps = [](GstBaseSink* self, GstCaps* caps) -> gboolean
    { return Type::of(self).setCaps(caps); };
    sinkClass->propose_allocation = [](GstBaseSink* self, GstQuery* query) -> gboolean
    { return Type::of(self).proposeAllocation(query); };
    sinkClass->preroll = [](GstBaseSink* self, GstBuffer* buffer)
    { return Type::of(self).prepare(buffer); };
    sinkClass->render = [](GstBaseSink* self, GstBuffer* buffer)
    { return Type::of(self).render(buffer); };
    sinkClass->unlock = [](GstBaseSink* self) -> gboolean { return Type::of(self).unlock(); };
    sinkClass->unlock_stop = [](GstBaseSink* self) -> gboolean
    { return Type::of(self).unlockStop(); };
}

GType getSinkType()
{
    static const GType type = Type::registerType(GST_TYPE_BASE_SINK, "GstVlxSink");
    return type;
}

} // namespace vlx::gst
