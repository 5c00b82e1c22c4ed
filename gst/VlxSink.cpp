// vlxsink sends raw audio to any number of other processes, each of which gets caps and timestamps
// with it, may come and go, and is never waited for. A receiver is vlxsrc, or `vlx receive`.
//
//   gst-launch-1.0 audiotestsrc ! audio/x-raw,rate=48000,channels=2 ! vlxsink socket-name=kitchen
//   gst-launch-1.0 vlxsrc socket-name=kitchen ! audioconvert ! autoaudiosink
//
// The stream is opened when the sink prerolls, and by default preroll lasts until a receiver has
// joined, so that the clock starts to run with everybody on board. Each buffer leaves when it is
// due, with that time on it: base time, running time and latency, on the clock that is announced.
//
// In "pubsub" what a receiver cannot take at once is lost to that receiver. A pipeline that runs
// faster than real time (sync=false) loses nothing only in "pipeline", which has one receiver and
// waits for it.

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
#include <vlxkit/Producer.hpp>

#include <miscUtils/MiscUtils.hpp>

#include "Caps.hpp"
#include "Clocks.hpp"
#include "ElementType.hpp"
#include "LogBridge.hpp"

GST_DEBUG_CATEGORY_STATIC(vlxsink_debug);
#define GST_CAT_DEFAULT vlxsink_debug

namespace vlx::gst
{

namespace
{

// How long a wait for receivers may go on after an unlock, and a send that is not blocked may take.
constexpr auto UnlockInterval = std::chrono::milliseconds(20);

enum class ClockChoice
{
    Auto,
    SysClock,
    GstNetClock,
};

enum Property : guint
{
    SocketName = 1,
    AlternativeSocketName,
    Protocol,
    SocketModeChoice,
    RealtimePriority,
    Clock,
    ClockAddress,
    ClockPort,
    ServeClock,
    WaitForConnection,
    Stats,
};

struct Settings
{
    std::string name;
    std::string alternativeName;
    NanomsgProtocol protocol = NanomsgProtocol::PubSub;
    kit::SocketMode socketMode = kit::SocketMode::Owner;
    int realtimePriority = 0;
    ClockChoice clock = ClockChoice::Auto;
    std::string clockAddress;
    std::uint16_t clockPort = 0;
    bool serveClock = false;
    bool waitForConnection = true;
};

/// What the timestamps stand on, and where receivers find it.
struct Announcement
{
    TimeSyncProtocol protocol = TimeSyncProtocol::MonotonicSystemClock;
    ClockEndpoint endpoint;
    GstClock* served = nullptr; // for comparison only

    bool operator==(const Announcement&) const = default;
};

class Sink
{
public:
    explicit Sink(GstBaseSink* element) : m_element(element) {}

    void setProperty(guint id, const GValue* value, GParamSpec* spec);
    void getProperty(guint id, GValue* value, GParamSpec* spec) const;

    bool start();
    bool stop();
    bool setCaps(GstCaps* caps);
    GstFlowReturn render(GstBuffer* buffer);

    // Makes the stream ready for the next buffer. Called with the preroll lock held, like render().
    GstFlowReturn prepare();

    // From another thread, while one of the above may be waiting.
    void unlock();
    void unlockStop();

private:
    bool isUnlocked() const;
    bool isProducerStopped() const;
    template <typename Call>
    bool callUnlockable(Call call);
    GstFlowReturn fail(std::string problem);
    std::optional<Announcement> chooseClock(GstClock* clock, const Settings& settings);
    bool serveClock(GstClock* clock, const Settings& settings);
    GstFlowReturn open(const Settings& settings, const Announcement& announcement);
    GstFlowReturn openOrAdapt();
    GstFlowReturn waitForReceiver();
    void dropProducer();
    GstFlowReturn send(GstBuffer* buffer, const ByteView& data);
    TimeValue makeTimestamp(GstBuffer* buffer) const;
    GstStructure* makeStatistics() const;

    GstBaseSink* const m_element;
    Settings m_settings; // guarded by the element's object lock

    // Streaming thread, or state changes while there is none.
    kit::StreamFormat m_format;
    std::optional<kit::StreamFormat> m_announcedFormat;
    Announcement m_announcement;
    ObjectPtr<GstNetTimeProvider> m_provider;
    const GstClock* m_clock = nullptr; // for comparison only: what the announcement was chosen for
    bool m_joined = false;
    TimeValue m_nextTimestamp = 0; // end of the frame before

    mutable std::mutex m_mutex;
    std::condition_variable m_condition;
    // Guarded by m_mutex. The streaming thread changes the producer, and uses it without.
    std::unique_ptr<kit::Producer> m_producer;
    kit::ProducerStatistics m_earlier; // of producers before the present one
    bool m_busy = false;               // in a call that may block
    bool m_producerStopped = false;    // by unlock()
    bool m_unlocked = false;
};

void Sink::setProperty(guint id, const GValue* value, GParamSpec* spec)
{
    GST_OBJECT_LOCK(m_element);
    switch (id)
    {
    case SocketName:
        m_settings.name = getText(value);
        break;
    case AlternativeSocketName:
        m_settings.alternativeName = getText(value);
        break;
    case Protocol:
        m_settings.protocol = static_cast<NanomsgProtocol>(g_value_get_enum(value));
        break;
    case SocketModeChoice:
        m_settings.socketMode = static_cast<kit::SocketMode>(g_value_get_enum(value));
        break;
    case RealtimePriority:
        m_settings.realtimePriority = g_value_get_int(value);
        break;
    case Clock:
        m_settings.clock = static_cast<ClockChoice>(g_value_get_enum(value));
        break;
    case ClockAddress:
        m_settings.clockAddress = getText(value);
        break;
    case ClockPort:
        m_settings.clockPort = static_cast<std::uint16_t>(g_value_get_uint(value));
        break;
    case ServeClock:
        m_settings.serveClock = g_value_get_boolean(value) != FALSE;
        break;
    case WaitForConnection:
        m_settings.waitForConnection = g_value_get_boolean(value) != FALSE;
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(m_element, id, spec);
        break;
    }
    GST_OBJECT_UNLOCK(m_element);
}

void Sink::getProperty(guint id, GValue* value, GParamSpec* spec) const
{
    if (id == Stats)
    {
        g_value_take_boxed(value, makeStatistics());
        return;
    }
    GST_OBJECT_LOCK(m_element);
    switch (id)
    {
    case SocketName:
        g_value_set_string(value, m_settings.name.c_str());
        break;
    case AlternativeSocketName:
        g_value_set_string(value, m_settings.alternativeName.c_str());
        break;
    case Protocol:
        g_value_set_enum(value, static_cast<gint>(m_settings.protocol));
        break;
    case SocketModeChoice:
        g_value_set_enum(value, static_cast<gint>(m_settings.socketMode));
        break;
    case RealtimePriority:
        g_value_set_int(value, m_settings.realtimePriority);
        break;
    case Clock:
        g_value_set_enum(value, static_cast<gint>(m_settings.clock));
        break;
    case ClockAddress:
        g_value_set_string(value, m_settings.clockAddress.c_str());
        break;
    case ClockPort:
        g_value_set_uint(value, m_settings.clockPort);
        break;
    case ServeClock:
        g_value_set_boolean(value, static_cast<gboolean>(m_settings.serveClock));
        break;
    case WaitForConnection:
        g_value_set_boolean(value, static_cast<gboolean>(m_settings.waitForConnection));
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(m_element, id, spec);
        break;
    }
    GST_OBJECT_UNLOCK(m_element);
}

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

bool Sink::start()
{
    forwardLibraryLog();
    GST_OBJECT_LOCK(m_element);
    const bool isNamed = !m_settings.name.empty();
    GST_OBJECT_UNLOCK(m_element);
    if (!isNamed)
        GST_ELEMENT_ERROR(
            m_element, RESOURCE, SETTINGS, ("The stream has no name: set \"socket-name\"."),
            (nullptr));
    const std::lock_guard lock(m_mutex);
    m_earlier = {};
    m_unlocked = false;
    m_nextTimestamp = 0;
    return isNamed;
}

bool Sink::stop()
{
    // After this, closing takes 100 ms at most, which the last frame needs to leave.
    if (m_producer)
        m_producer->stop();
    dropProducer();
    return true;
}

bool Sink::setCaps(GstCaps* caps)
{
    const auto format = toStreamFormat(caps);
    if (!format)
        return false;
    GST_INFO_OBJECT(m_element, "format %s", toText(*format).c_str());
    m_format = *format;
    return true;
}

void Sink::dropProducer()
{
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
    m_producerStopped = false;
}

void Sink::unlock()
{
    std::unique_lock lock(m_mutex);
    m_unlocked = true;
    // Stopping a producer is for good, so only a call that really blocks is freed in this way.
    if (m_condition.wait_for(lock, UnlockInterval, [this] { return !m_busy; }) || !m_producer)
        return;
    m_producer->stop();
    m_producerStopped = true;
}

void Sink::unlockStop()
{
    const std::lock_guard lock(m_mutex);
    m_unlocked = false;
}

bool Sink::isUnlocked() const
{
    const std::lock_guard lock(m_mutex);
    return m_unlocked;
}

bool Sink::isProducerStopped() const
{
    const std::lock_guard lock(m_mutex);
    return m_producerStopped;
}

// Makes a call to the producer that unlock() can free.
template <typename Call>
bool Sink::callUnlockable(Call call)
{
    {
        const std::lock_guard lock(m_mutex);
        if (m_unlocked)
            return false;
        m_busy = true;
    }
    const bool done = call(*m_producer);
    const std::lock_guard lock(m_mutex);
    m_busy = false;
    m_condition.notify_all();
    return done;
}

// What a call that returned false means: it was freed, or it cannot be done.
GstFlowReturn Sink::fail(std::string problem)
{
    const bool freed = isUnlocked() || isProducerStopped();
    dropProducer();
    if (freed)
        return GST_FLOW_FLUSHING;
    GST_ELEMENT_ERROR(
        m_element, RESOURCE, OPEN_WRITE, ("The stream cannot be sent: %s.", problem.c_str()),
        (nullptr));
    return GST_FLOW_ERROR;
}

std::optional<Announcement> Sink::chooseClock(GstClock* clock, const Settings& settings)
{
    Announcement result;
    const auto followed = clock != nullptr ? getNetClockEndpoint(clock) : std::nullopt;
    const bool serves = settings.serveClock && clock != nullptr;
    const bool isNet = settings.clock == ClockChoice::GstNetClock ||
                       (settings.clock == ClockChoice::Auto && (followed || serves));
    if (serves)
        result.served = clock;
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
        result.endpoint.port = settings.clockPort;
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

GstFlowReturn Sink::open(const Settings& settings, const Announcement& announcement)
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
    options.protocol = settings.protocol;
    options.clock = announcement.protocol;
    options.clockAddress = endpoint.address;
    options.clockPort = endpoint.port;
    options.socketMode = settings.socketMode;
    if (settings.realtimePriority > 0)
        options.realTime = {kit::RealTimeUse::Try, settings.realtimePriority};
    options.onNotice = [this](const std::string& notice)
    { GST_ELEMENT_WARNING(m_element, RESOURCE, SETTINGS, ("%s", notice.c_str()), (nullptr)); };
    {
        const std::lock_guard lock(m_mutex);
        m_producer = std::make_unique<kit::Producer>(std::move(options));
    }
    if (!callUnlockable([this](kit::Producer& producer) { return producer.open(m_format); }))
        return fail(m_producer->getProblem());

    m_announcement = announcement;
    m_announcedFormat = m_format;
    GST_INFO_OBJECT(
        m_element, "\"%s\" is open on %s", m_producer->getName().c_str(),
        toString(announcement.protocol));
    return GST_FLOW_OK;
}

// The stream is opened anew when the clock that it announces is no longer that of its timestamps.
GstFlowReturn Sink::openOrAdapt()
{
    GST_OBJECT_LOCK(m_element);
    const Settings settings = m_settings;
    GST_OBJECT_UNLOCK(m_element);
    const ObjectPtr<GstClock> clock = findClock(GST_ELEMENT(m_element));
    const auto announcement = chooseClock(clock.get(), settings);
    if (!announcement)
        return fail("a network clock is wanted, but the pipeline has none; set \"clock-address\" "
                    "and \"clock-port\", or \"serve-clock\"");
    if (m_producer && (m_announcement != *announcement || isProducerStopped()))
    {
        GST_INFO_OBJECT(m_element, "opening again, with the pipeline's present clock");
        dropProducer();
    }
    m_clock = clock.get();
    if (!m_producer)
        return open(settings, *announcement);
    if (m_announcedFormat == m_format)
        return GST_FLOW_OK;
    if (!callUnlockable([this](kit::Producer& producer) { return producer.setFormat(m_format); }))
        return fail(m_producer->getProblem());
    m_announcedFormat = m_format;
    return GST_FLOW_OK;
}

GstFlowReturn Sink::waitForReceiver()
{
    GST_OBJECT_LOCK(m_element);
    m_joined = m_joined || !m_settings.waitForConnection;
    GST_OBJECT_UNLOCK(m_element);
    while (!m_joined)
    {
        if (isUnlocked())
            return GST_FLOW_FLUSHING;
        m_joined = m_producer->waitForReceivers(1, UnlockInterval);
    }
    return GST_FLOW_OK;
}

// Everything that may take long is done without the preroll lock, which a state change needs.
GstFlowReturn Sink::prepare()
{
    if (isUnlocked())
        return GST_FLOW_FLUSHING;
    const ObjectPtr<GstClock> clock(gst_element_get_clock(GST_ELEMENT(m_element)));
    if (m_joined && clock && clock.get() == m_clock && m_announcedFormat == m_format &&
        !isProducerStopped())
        return GST_FLOW_OK;

    GST_BASE_SINK_PREROLL_UNLOCK(m_element);
    GstFlowReturn flow = openOrAdapt();
    if (flow == GST_FLOW_OK)
        flow = waitForReceiver();
    GST_BASE_SINK_PREROLL_LOCK(m_element);
    return flow;
}

TimeValue Sink::makeTimestamp(GstBuffer* buffer) const
{
    const GstSegment& segment = m_element->segment;
    const GstClockTime runningTime =
        segment.format == GST_FORMAT_TIME && GST_BUFFER_PTS_IS_VALID(buffer)
            ? gst_segment_to_running_time(&segment, GST_FORMAT_TIME, GST_BUFFER_PTS(buffer))
            : GST_CLOCK_TIME_NONE;
    const ObjectPtr<GstClock> clock(gst_element_get_clock(GST_ELEMENT(m_element)));
    const bool isSystemTime = m_announcement.protocol == TimeSyncProtocol::MonotonicSystemClock;
    if (!GST_CLOCK_TIME_IS_VALID(runningTime))
    {
        if (m_nextTimestamp != 0)
            return m_nextTimestamp;
        return isSystemTime || !clock ? miscUtils::getMonotonicSysclockTime()
                                      : gst_clock_get_time(clock.get());
    }

    std::int64_t shift = gst_base_sink_get_ts_offset(m_element);
    if (isSystemTime && clock)
        shift -= getOffsetToMonotonic(clock.get());
    return gst_element_get_base_time(GST_ELEMENT(m_element)) + runningTime +
           gst_base_sink_get_latency(m_element) + static_cast<TimeValue>(shift);
}

GstFlowReturn Sink::send(GstBuffer* buffer, const ByteView& data)
{
    const TimeValue timestamp = makeTimestamp(buffer);
    const TimeValue duration =
        GST_BUFFER_DURATION_IS_VALID(buffer)
            ? GST_BUFFER_DURATION(buffer)
            : m_format.toNanoseconds(data.size() / m_format.getBytesPerSample());
    if (!callUnlockable([&](kit::Producer& producer)
                        { return producer.send(timestamp, duration, data); }))
    {
        // Freed before it began: the producer is as good as before.
        const bool intact = isUnlocked() && !isProducerStopped();
        return intact ? GST_FLOW_FLUSHING : fail(m_producer->getProblem());
    }
    m_nextTimestamp = timestamp + duration;
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
    GstFlowReturn flow = GST_FLOW_OK;
    do
    {
        flow = prepare();
        if (flow == GST_FLOW_OK)
            flow = send(buffer, ByteView(map.data, map.size));
        if (flow != GST_FLOW_FLUSHING)
            break;
        // Paused: the same buffer again when it goes on. Flushed: it is dropped.
        flow = GST_FLOW_OK;
        if (isUnlocked() || m_element->flushing != FALSE || m_element->need_preroll != FALSE)
            flow = gst_base_sink_wait_preroll(m_element);
    } while (flow == GST_FLOW_OK);
    gst_buffer_unmap(buffer, &map);
    return flow;
}

// From here on: the element as GObject knows it.

struct SinkInstance
{
    GstBaseSink parent;
    Sink* sink;
};

gpointer parentClass = nullptr;

Sink& toSink(gpointer instance)
{
    return *static_cast<SinkInstance*>(instance)->sink;
}

GType getProtocolType()
{
    static const GEnumValue values[] = {
        {static_cast<gint>(NanomsgProtocol::PubSub), "Any number of receivers, nobody waits",
         "pubsub"},
        {static_cast<gint>(NanomsgProtocol::Pipeline), "One receiver, waits for it", "pipeline"},
        {0, nullptr, nullptr}};
    static const GType type = g_enum_register_static("GstVlxProtocol", values);
    return type;
}

GType getSocketModeType()
{
    static const GEnumValue values[] = {
        {static_cast<gint>(kit::SocketMode::Owner), "Receivers of the same user", "owner"},
        {static_cast<gint>(kit::SocketMode::Group), "Those of the group as well", "group"},
        {static_cast<gint>(kit::SocketMode::All), "Everybody's", "all"},
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

// A flat table.
void installProperties(GObjectClass* objectClass)
{
    const auto install = [objectClass](Property id, GParamSpec* spec)
    { g_object_class_install_property(objectClass, id, spec); };

    install(
        SocketName, g_param_spec_string(
                        "socket-name", "Socket name", "Name of the stream, 1 to 107 bytes", "",
                        SetWhenStopped));
    install(
        AlternativeSocketName,
        g_param_spec_string(
            "alternative-socket-name", "Alternative socket name",
            "Name to take if another sender holds the first; empty: none, and opening fails", "",
            SetWhenStopped));
    install(
        Protocol, g_param_spec_enum(
                      "protocol", "Protocol", "How frames reach the receivers", getProtocolType(),
                      static_cast<gint>(NanomsgProtocol::PubSub), SetWhenStopped));
    install(
        SocketModeChoice,
        g_param_spec_enum(
            "socket-mode", "Socket mode",
            "Whose receivers may join; they could also end this process", getSocketModeType(),
            static_cast<gint>(kit::SocketMode::Owner), SetWhenStopped));
    install(
        RealtimePriority,
        g_param_spec_int(
            "realtime-priority", "Real-time priority",
            "Round-robin priority of the stream's threads where permitted; 0: ordinary scheduling",
            0, 99, 0, SetWhenStopped));
    install(
        Clock, g_param_spec_enum(
                   "clock", "Clock", "Clock that is announced and that the timestamps stand on",
                   getClockType(), static_cast<gint>(ClockChoice::Auto), SetWhenStopped));
    install(
        ClockAddress,
        g_param_spec_string(
            "clock-address", "Clock address",
            "Announced address of the network clock; empty: that of the pipeline's clock, or "
            "127.0.0.1 with serve-clock",
            "", SetWhenStopped));
    install(
        ClockPort,
        g_param_spec_uint(
            "clock-port", "Clock port",
            "Announced UDP port of the network clock; 0: that of the pipeline's clock, or any free "
            "one with serve-clock",
            0, 65535, 0, SetWhenStopped));
    install(
        ServeClock, g_param_spec_boolean(
                        "serve-clock", "Serve clock",
                        "Run a time provider for the pipeline's clock", FALSE, SetWhenStopped));
    install(
        WaitForConnection,
        g_param_spec_boolean(
            "wait-for-connection", "Wait for connection",
            "Preroll until the first receiver has joined", TRUE, SetWhenStopped));
    install(
        Stats, g_param_spec_boxed(
                   "stats", "Statistics", "Frames and bytes sent, receivers, sequences",
                   GST_TYPE_STRUCTURE, ReadOnly));
}

// A flat table.
void initClass(gpointer type, gpointer /*data*/)
{
    GST_DEBUG_CATEGORY_INIT(vlxsink_debug, "vlxsink", 0, "Vellox sink");
    parentClass = g_type_class_peek_parent(type);

    auto* const objectClass = G_OBJECT_CLASS(type);
    objectClass->set_property = [](GObject* object, guint id, const GValue* value, GParamSpec* spec)
    { toSink(object).setProperty(id, value, spec); };
    objectClass->get_property = [](GObject* object, guint id, GValue* value, GParamSpec* spec)
    { toSink(object).getProperty(id, value, spec); };
    objectClass->finalize = [](GObject* object)
    {
        delete &toSink(object);
        G_OBJECT_CLASS(parentClass)->finalize(object);
    };
    installProperties(objectClass);

    auto* const elementClass = GST_ELEMENT_CLASS(type);
    gst_element_class_set_static_metadata(
        elementClass, "Vellox sink", "Sink/Audio",
        "Sends timestamped audio to any number of processes of this machine", "Vellox developers");
    GstCaps* const caps = gst_caps_from_string(TemplateCaps);
    gst_element_class_add_pad_template(
        elementClass, gst_pad_template_new("sink", GST_PAD_SINK, GST_PAD_ALWAYS, caps));
    gst_caps_unref(caps);

    auto* const sinkClass = GST_BASE_SINK_CLASS(type);
    sinkClass->start = [](GstBaseSink* self) -> gboolean { return toSink(self).start(); };
    sinkClass->stop = [](GstBaseSink* self) -> gboolean { return toSink(self).stop(); };
    sinkClass->set_caps = [](GstBaseSink* self, GstCaps* wanted) -> gboolean
    { return toSink(self).setCaps(wanted); };
    sinkClass->preroll = [](GstBaseSink* self, GstBuffer* /*buffer*/)
    { return toSink(self).prepare(); };
    sinkClass->render = [](GstBaseSink* self, GstBuffer* buffer)
    { return toSink(self).render(buffer); };
    sinkClass->unlock = [](GstBaseSink* self) -> gboolean
    {
        toSink(self).unlock();
        return TRUE;
    };
    sinkClass->unlock_stop = [](GstBaseSink* self) -> gboolean
    {
        toSink(self).unlockStop();
        return TRUE;
    };

    gst_type_mark_as_plugin_api(getProtocolType(), GstPluginAPIFlags{});
    gst_type_mark_as_plugin_api(getSocketModeType(), GstPluginAPIFlags{});
    gst_type_mark_as_plugin_api(getClockType(), GstPluginAPIFlags{});
}

void initInstance(GTypeInstance* instance, gpointer /*class*/)
{
    auto* const self = static_cast<SinkInstance*>(static_cast<gpointer>(instance));
    self->sink = new Sink(&self->parent);
}

} // unnamed namespace

GType getSinkType()
{
    static const GTypeInfo info = {
        sizeof(GstBaseSinkClass), nullptr, nullptr,      initClass, nullptr, nullptr,
        sizeof(SinkInstance),     0,       initInstance, nullptr};
    static const GType type = registerElementType(GST_TYPE_BASE_SINK, "GstVlxSink", info);
    return type;
}

} // namespace vlx::gst
