// vlxsrc receives the stream of a vlxsink, of `vlx send` or of any other Vellox sender, with its
// caps and timestamps. It waits for a sender that is not there yet, and for one that has died.
//
//   gst-launch-1.0 vlxsrc socket-name=kitchen ! audioconvert ! audioresample ! autoaudiosink
//   gst-launch-1.0 vlxsrc socket-name=kitchen eos-on-disconnect=true ! wavenc ! filesink location=k.wav
//   gst-play-1.0 vlx://kitchen
//
// Timestamps: what is due at one time at the sender is due at the same time here, plus the latency
// that this element reports. Exactly, to the nanosecond, if the pipeline runs on the stream's clock
// (the system's monotonic one, or the same network clock, which the element provides); by way of
// the monotonic clock on any other; by arrival for a stream that has no clock, or one that cannot be
// told. A buffer after something that is missing, or after a new connection, is marked DISCONT.
//
// Element messages on the bus: "vlx-joined", "vlx-lost" and "vlx-stalled", with "socket-name",
// "text", and "time" in nanoseconds of the monotonic clock.

#include "VlxSrc.hpp"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <variant>

#include <gst/base/gstpushsrc.h>

#include <miscUtils/MiscUtils.hpp>
#include <vlxkit/Consumer.hpp>
#include <vlxkit/Discovery.hpp>

#include "Clocks.hpp"
#include "ElementType.hpp"
#include "LogBridge.hpp"

GST_DEBUG_CATEGORY_STATIC(vlxsrc_debug);
#define GST_CAT_DEFAULT vlxsrc_debug

namespace vlx::gst
{

namespace
{

using ClockType = Receiver::StreamClockType;

constexpr guint64 DefaultMaxQueueTimeNs = 1'000'000'000;
constexpr guint64 DefaultStallTimeoutNs = 2'000'000'000;
constexpr guint64 DefaultLatencyNs = 20'000'000;

// A sender that has no sequence yet answers the rest at once, and then nothing for so long.
constexpr auto ProbeTimeout = std::chrono::milliseconds(50);

// Timestamps that are further away cannot be meant for the announced clock.
constexpr std::int64_t ImplausibleNs = 60'000'000'000;

constexpr auto ProvidesClock = static_cast<guint32>(GST_ELEMENT_FLAG_PROVIDE_CLOCK);

struct Settings
{
    std::string name;
    guint64 timeoutNs = 0;
    bool eosOnDisconnect = false;
    int realtimePriority = 0;
    guint64 maxQueueTimeNs = DefaultMaxQueueTimeNs;
    guint64 stallTimeoutNs = DefaultStallTimeoutNs;
    guint64 latencyNs = DefaultLatencyNs;
    bool provideClock = true;
};

struct BufferDeleter
{
    void operator()(GstBuffer* buffer) const
    {
        gst_buffer_unref(buffer);
    }
};

using BufferPtr = std::unique_ptr<GstBuffer, BufferDeleter>;

struct QueuedFrame
{
    BufferPtr buffer;
    TimeValue timestamp = 0;
    TimeValue arrival = 0; // CLOCK_MONOTONIC
    ClockType clock = ClockType::Undetermined;
    // The stream's clock less CLOCK_MONOTONIC; unset while it cannot be told.
    std::optional<std::int64_t> streamOffset;
};

struct EndOfStream
{
};

using Item = std::variant<kit::StreamFormat, QueuedFrame, EndOfStream>;

class Src : public WithSettings<Settings>
{
public:
    explicit Src(GstPushSrc* element);

    static void initClass(gpointer elementClass);
    void setProperty(guint id, const GValue* value);
    GstStructure* makeStatistics() const;

    bool start();
    bool stop();
    bool onPlaying();
    void onPaused();
    void setUpClock();
    ProvidedClock& getProvidedClock()
    {
        return m_providedClock;
    }
    void answerLatency(GstQuery* query) const;
    GstFlowReturn create(GstBuffer** buffer);

    // From another thread, while create() may be waiting.
    bool unlock();
    bool unlockStop();

private:
    // Consumer's threads.
    void onFormat(const kit::StreamFormat& format);
    void onFrame(const kit::Frame& frame);
    void onEvent(const kit::ConsumerEvent& event);
    void postMessage(const char* name, const kit::ConsumerEvent& event);

    // m_mutex is held by the caller.
    void push(Item item);
    void dropOldest();

    // Streaming thread.
    GstFlowReturn pop(std::optional<Item>& item);
    bool applyFormat(const kit::StreamFormat& format);
    GstClockTime toRunningTime(const QueuedFrame& frame, GstClock* clock);
    bool isStreamClock(GstClock* clock);

    GstBaseSrc* const m_element;
    GstElement* const m_gstElement;
    ProvidedClock m_providedClock;
    std::optional<ClockEndpoint> m_streamEndpoint; // streaming thread, or while there is none

    // Consumer's receiving thread.
    kit::StreamFormat m_format;
    ClockType m_clockType = ClockType::Undetermined;
    bool m_warnedOfTimestamps = false; // streaming thread

    mutable std::mutex m_mutex;
    std::condition_variable m_condition;
    // Guarded by m_mutex.
    std::deque<Item> m_items;
    GstClockTime m_queuedNs = 0;
    std::uint64_t m_dropped = 0;
    bool m_discont = true; // of the next frame that is queued
    bool m_playing = false;
    bool m_unlocked = false;
    bool m_joined = false;
    kit::ConsumerEvent::Kind m_lastEvent = kit::ConsumerEvent::Kind::Lost;
    std::chrono::steady_clock::time_point m_waitingSince;
    kit::ConsumerStatistics m_lastStatistics; // of a consumer that has been stopped
    // State changes alone make and stop it; others use it with m_mutex held.
    std::unique_ptr<kit::Consumer> m_consumer;
};

Src::Src(GstPushSrc* element)
    : WithSettings(element),
      m_element(GST_BASE_SRC(element)),
      m_gstElement(GST_ELEMENT(element)),
      m_providedClock(m_gstElement)
{
    gst_base_src_set_live(m_element, TRUE);
    gst_base_src_set_format(m_element, GST_FORMAT_TIME);
    GST_OBJECT_FLAG_SET(m_element, ProvidesClock);
}

void Src::setProperty(guint id, const GValue* value)
{
    const guint64 formerLatency = getSettings().latencyNs;
    WithSettings::setProperty(id, value);
    const Settings settings = getSettings();
    if (settings.provideClock)
        GST_OBJECT_FLAG_SET(m_element, ProvidesClock);
    else
        GST_OBJECT_FLAG_UNSET(m_element, ProvidesClock);
    if (settings.latencyNs != formerLatency)
        gst_element_post_message(m_gstElement, gst_message_new_latency(GST_OBJECT(m_element)));
}

GstStructure* Src::makeStatistics() const
{
    const std::lock_guard lock(m_mutex);
    const kit::ConsumerStatistics counts =
        m_consumer ? m_consumer->getStatistics() : m_lastStatistics;
    const auto toCount = [](std::uint64_t value) { return static_cast<guint64>(value); };
    const auto toTime = [](std::optional<std::int64_t> value)
    { return static_cast<gint64>(value.value_or(0)); };
    return gst_structure_new(
        "application/x-vlxsrc-stats", "frames", G_TYPE_UINT64, toCount(counts.frames), "bytes",
        G_TYPE_UINT64, toCount(counts.bytes), "gaps", G_TYPE_UINT64, toCount(counts.gaps),
        "dropped", G_TYPE_UINT64, toCount(m_dropped), "reconnects", G_TYPE_UINT64,
        toCount(counts.reconnects), "stalls", G_TYPE_UINT64, toCount(counts.stalls), "age",
        G_TYPE_INT64, toTime(counts.ages.getPercentile(0.5)), "age-max", G_TYPE_INT64,
        toTime(counts.ages.getMax()), nullptr);
}

bool Src::start()
{
    forwardLibraryLog();
    if (getSettings().name.empty())
    {
        GST_ELEMENT_ERROR(
            m_element, RESOURCE, SETTINGS, ("The stream has no name: set \"socket-name\"."),
            (nullptr));
        return false;
    }
    const std::lock_guard lock(m_mutex);
    m_dropped = 0;
    m_discont = true;
    m_joined = false;
    m_unlocked = false;
    m_lastStatistics = {};
    return true;
}

// No frame shall be due before the pipeline's base time: so the stream is joined only after that has
// been set, and what has come before a pause ends is stale.
bool Src::onPlaying()
{
    {
        const std::lock_guard lock(m_mutex);
        std::erase_if(
            m_items, [](const Item& item) { return std::holds_alternative<QueuedFrame>(item); });
        m_queuedNs = 0;
        m_discont = true;
        m_playing = true;
        if (m_consumer)
            return true;
        m_waitingSince = std::chrono::steady_clock::now();
    }

    const Settings settings = getSettings();
    kit::ConsumerOptions options;
    options.name = settings.name;
    options.stallTimeout = std::chrono::nanoseconds(settings.stallTimeoutNs);
    if (settings.realtimePriority > 0)
        options.realTime = {kit::RealTimeUse::Try, settings.realtimePriority};
    kit::ConsumerCallbacks callbacks;
    callbacks.onFrame = [this](const kit::Frame& frame) { onFrame(frame); };
    callbacks.onFormat = [this](const kit::StreamFormat& format) { onFormat(format); };
    callbacks.onEvent = [this](const kit::ConsumerEvent& event) { onEvent(event); };
    {
        const std::lock_guard lock(m_mutex);
        m_consumer = std::make_unique<kit::Consumer>(std::move(options), std::move(callbacks));
    }
    const bool started = m_consumer->start();
    const std::string problem = m_consumer->getProblem();
    if (!started)
        GST_ELEMENT_ERROR(
            m_element, RESOURCE, OPEN_READ, ("The stream cannot be received: %s", problem.c_str()),
            (nullptr));
    else if (!problem.empty())
        GST_ELEMENT_WARNING(m_element, RESOURCE, SETTINGS, ("%s", problem.c_str()), (nullptr));
    return started;
}

void Src::onPaused()
{
    const std::lock_guard lock(m_mutex);
    m_playing = false;
}

bool Src::stop()
{
    if (m_consumer)
        m_consumer->stop(); // without m_mutex, which callbacks take
    const std::lock_guard lock(m_mutex);
    if (m_consumer)
        m_lastStatistics = m_consumer->getStatistics();
    m_consumer.reset();
    m_items.clear();
    m_queuedNs = 0;
    return true;
}

// Asks the sender, if it is there, which network clock its timestamps stand on, and follows that.
void Src::setUpClock()
{
    const Settings settings = getSettings();
    m_streamEndpoint.reset();
    if (!settings.provideClock || settings.name.empty())
        return;
    const kit::SenderProbe probe = kit::probeSender(settings.name, ProbeTimeout);
    if (!probe.initialInfo ||
        probe.initialInfo->timeSyncProtocol != TimeSyncProtocol::GstNetClock ||
        probe.initialInfo->timeSyncPort == 0)
        return;

    m_streamEndpoint = {probe.initialInfo->timeSyncIPAddress, probe.initialInfo->timeSyncPort};
    m_providedClock.offer(*m_streamEndpoint);
}

void Src::answerLatency(GstQuery* query) const
{
    const Settings settings = getSettings();
    const GstClockTime max = settings.maxQueueTimeNs == 0
                                 ? GST_CLOCK_TIME_NONE
                                 : settings.latencyNs + settings.maxQueueTimeNs;
    gst_query_set_latency(query, TRUE, settings.latencyNs, max);
}

bool Src::unlock()
{
    const std::lock_guard lock(m_mutex);
    m_unlocked = true;
    m_condition.notify_all();
    return true;
}

bool Src::unlockStop()
{
    const std::lock_guard lock(m_mutex);
    m_unlocked = false;
    m_discont = true;
    return true;
}

void Src::push(Item item)
{
    m_items.push_back(std::move(item));
    m_condition.notify_all();
}

// Frames only: formats and the end stay, and the frame behind the hole tells of it.
void Src::dropOldest()
{
    auto isFrame = [](const Item& item) { return std::holds_alternative<QueuedFrame>(item); };
    const auto oldest = std::find_if(m_items.begin(), m_items.end(), isFrame);
    if (oldest == m_items.end())
        return;
    m_queuedNs -= GST_BUFFER_DURATION(std::get<QueuedFrame>(*oldest).buffer.get());
    ++m_dropped;
    const auto next = std::find_if(m_items.erase(oldest), m_items.end(), isFrame);
    if (next != m_items.end())
        GST_BUFFER_FLAG_SET(std::get<QueuedFrame>(*next).buffer.get(), GST_BUFFER_FLAG_DISCONT);
    else
        m_discont = true;
}

void Src::onFormat(const kit::StreamFormat& format)
{
    m_format = format;
    m_clockType = ClockType::Undetermined;
    const std::lock_guard lock(m_mutex);
    push(format);
}

void Src::onFrame(const kit::Frame& frame)
{
    const std::size_t bytesPerSample = m_format.getBytesPerSample();
    const std::size_t size = frame.data.size() - frame.data.size() % bytesPerSample;
    QueuedFrame queued;
    queued.buffer.reset(gst_buffer_new_memdup(frame.data.data(), size));
    GST_BUFFER_DURATION(queued.buffer.get()) =
        frame.duration != 0 ? frame.duration : m_format.toNanoseconds(size / bytesPerSample);
    queued.timestamp = frame.timestamp;
    queued.arrival = frame.arrival;
    const guint64 maxQueueTimeNs = getSettings().maxQueueTimeNs;

    const std::lock_guard lock(m_mutex);
    if (!m_playing)
    {
        m_discont = true;
        return;
    }
    if (m_clockType == ClockType::Undetermined || m_clockType == ClockType::NoClock)
        m_clockType = m_consumer->getStatistics().clock;
    queued.clock = m_clockType;
    if (m_clockType == ClockType::SyncedNetClock)
    {
        const TimeValue streamTime = m_consumer->getStreamTime();
        if (streamTime != 0)
            queued.streamOffset =
                static_cast<std::int64_t>(streamTime - miscUtils::getMonotonicSysclockTime());
    }
    if (frame.gapNs != 0 || frame.isFirst || m_discont)
        GST_BUFFER_FLAG_SET(queued.buffer.get(), GST_BUFFER_FLAG_DISCONT);
    m_discont = false;
    m_queuedNs += GST_BUFFER_DURATION(queued.buffer.get());
    push(std::move(queued));
    while (maxQueueTimeNs != 0 && m_queuedNs > maxQueueTimeNs && m_items.size() > 1)
        dropOldest();
}

void Src::postMessage(const char* name, const kit::ConsumerEvent& event)
{
    GstStructure* const fields = gst_structure_new(
        name, "socket-name", G_TYPE_STRING, getSettings().name.c_str(), "text", G_TYPE_STRING,
        event.text.c_str(), "time", G_TYPE_UINT64, static_cast<guint64>(event.time), nullptr);
    gst_element_post_message(m_gstElement, gst_message_new_element(GST_OBJECT(m_element), fields));
}

void Src::onEvent(const kit::ConsumerEvent& event)
{
    GST_INFO_OBJECT(m_element, "%s: %s", toString(event.kind), event.text.c_str());
    const bool endsStream = getSettings().eosOnDisconnect;
    bool isNew = false;
    {
        const std::lock_guard lock(m_mutex);
        isNew = std::exchange(m_lastEvent, event.kind) != event.kind;
        const bool wasJoined =
            std::exchange(m_joined, event.kind == kit::ConsumerEvent::Kind::Joined);
        if (wasJoined && !m_joined)
            m_waitingSince = std::chrono::steady_clock::now();
        if (wasJoined && event.kind == kit::ConsumerEvent::Kind::Lost && endsStream)
            push(EndOfStream{});
    }
    switch (event.kind)
    {
    case kit::ConsumerEvent::Kind::Joined:
        postMessage("vlx-joined", event);
        break;
    case kit::ConsumerEvent::Kind::Lost:
        postMessage("vlx-lost", event);
        break;
    case kit::ConsumerEvent::Kind::Stalled:
        postMessage("vlx-stalled", event);
        break;
    case kit::ConsumerEvent::Kind::CannotPlay:
    case kit::ConsumerEvent::Kind::NotPermitted:
    case kit::ConsumerEvent::Kind::NotASender:
    case kit::ConsumerEvent::Kind::Failed:
        // Asked again every two seconds: once is enough.
        if (isNew)
            GST_ELEMENT_WARNING(
                m_element, RESOURCE, OPEN_READ, ("%s", event.text.c_str()), (nullptr));
        break;
    }
}

GstFlowReturn Src::pop(std::optional<Item>& item)
{
    const std::chrono::nanoseconds timeout(getSettings().timeoutNs);
    std::unique_lock lock(m_mutex);
    while (m_items.empty() && !m_unlocked)
    {
        if (timeout.count() == 0 || m_joined)
            m_condition.wait(lock);
        else if (std::chrono::steady_clock::now() < m_waitingSince + timeout)
            m_condition.wait_until(lock, m_waitingSince + timeout);
        else
        {
            lock.unlock();
            GST_ELEMENT_ERROR(
                m_element, RESOURCE, NOT_FOUND,
                ("There was no sender \"%s\" for %.3f seconds.", getSettings().name.c_str(),
                 std::chrono::duration<double>(timeout).count()),
                (nullptr));
            return GST_FLOW_ERROR;
        }
    }
    if (m_unlocked)
        return GST_FLOW_FLUSHING;
    item = std::move(m_items.front());
    m_items.pop_front();
    if (const auto* const frame = std::get_if<QueuedFrame>(&*item))
        m_queuedNs -= GST_BUFFER_DURATION(frame->buffer.get());
    return GST_FLOW_OK;
}

bool Src::applyFormat(const kit::StreamFormat& format)
{
    GST_INFO_OBJECT(m_element, "format %s", toText(format).c_str());
    m_warnedOfTimestamps = false;
    GstCaps* const caps = toCaps(format);
    const bool accepted = gst_base_src_set_caps(m_element, caps) != FALSE;
    gst_caps_unref(caps);
    return accepted;
}

// Whether this clock follows the provider that the present sender announces.
bool Src::isStreamClock(GstClock* clock)
{
    const auto followed = getNetClockEndpoint(clock);
    if (!followed)
        return false;
    if (!m_streamEndpoint)
    {
        const kit::SenderProbe probe = kit::probeSender(getSettings().name, ProbeTimeout);
        m_streamEndpoint.emplace(); // asked once for each start
        if (probe.initialInfo)
            *m_streamEndpoint = {
                probe.initialInfo->timeSyncIPAddress, probe.initialInfo->timeSyncPort};
    }
    return followed == m_streamEndpoint;
}

// A frame that was due before the pipeline began is due at its beginning.
GstClockTime Src::toRunningTime(const QueuedFrame& frame, GstClock* clock)
{
    const std::int64_t clockOffset = getOffsetToMonotonic(clock);
    const auto arrival = static_cast<std::int64_t>(frame.arrival) + clockOffset;
    std::int64_t due = arrival;
    if (gst_base_src_get_do_timestamp(m_element) == FALSE)
    {
        const auto timestamp = static_cast<std::int64_t>(frame.timestamp);
        if (frame.clock == ClockType::MonotonicSystemClock)
            due = timestamp + clockOffset;
        else if (frame.clock == ClockType::SyncedNetClock && isStreamClock(clock))
            due = timestamp;
        else if (frame.streamOffset)
            due = timestamp - *frame.streamOffset + clockOffset;
    }
    if (std::abs(due - arrival) > ImplausibleNs)
    {
        if (!std::exchange(m_warnedOfTimestamps, true))
            GST_ELEMENT_WARNING(
                m_element, STREAM, FORMAT,
                ("The stream's timestamps are not on the clock that it announces."),
                ("taking the times of arrival"));
        due = arrival;
    }
    const auto base = static_cast<std::int64_t>(gst_element_get_base_time(m_gstElement));
    return static_cast<GstClockTime>(std::max(due - base, std::int64_t{0}));
}

GstFlowReturn Src::create(GstBuffer** buffer)
{
    for (;;)
    {
        std::optional<Item> item;
        const GstFlowReturn flow = pop(item);
        if (flow != GST_FLOW_OK)
            return flow;
        if (std::holds_alternative<EndOfStream>(*item))
            return GST_FLOW_EOS;
        if (const auto* const format = std::get_if<kit::StreamFormat>(&*item))
        {
            if (!applyFormat(*format))
                return GST_FLOW_NOT_NEGOTIATED;
            continue;
        }
        auto& frame = std::get<QueuedFrame>(*item);
        if (const ObjectPtr<GstClock> clock{gst_element_get_clock(m_gstElement)})
            GST_BUFFER_PTS(frame.buffer.get()) = toRunningTime(frame, clock.get());
        *buffer = frame.buffer.release();
        return GST_FLOW_OK;
    }
}

// From here on: the element as GObject knows it.

using Type = ElementType<Src, GstPushSrc>;

// A flat table.
void installProperties(gpointer elementClass)
{
    auto& properties = Src::getProperties();
    properties.begin(elementClass);
    properties.addTime(
        "timeout", &Settings::timeoutNs, Mutability::Stopped,
        "Post an error after so long without a sender, in nanoseconds; 0: wait for ever");
    properties.addFlag(
        "eos-on-disconnect", &Settings::eosOnDisconnect, Mutability::AnyTime,
        "End the stream when the sender goes, instead of waiting for the next");
    properties.addTime(
        "max-queue-time", &Settings::maxQueueTimeNs, Mutability::AnyTime,
        "Audio that is kept for a busy pipeline, in nanoseconds; beyond it the oldest is dropped "
        "and counted; 0: no limit");
    properties.addTime(
        "stall-timeout", &Settings::stallTimeoutNs, Mutability::Stopped,
        "Join again after so long without a frame, in nanoseconds; 0: never");
    properties.addTime(
        "latency", &Settings::latencyNs, Mutability::AnyTime,
        "Time that a frame may take until here, in nanoseconds; the pipeline plays that much "
        "later");
    properties.addFlag(
        "provide-clock", &Settings::provideClock, Mutability::Stopped,
        "Provide the stream's network clock as the pipeline's, if it has one and the sender is "
        "there at the start");
    properties.addStatistics(
        "Frames, bytes, gaps, dropped frames, reconnects, stalls; age of frames on arrival, median "
        "and largest, in nanoseconds");
}

gboolean answerQuery(GstBaseSrc* element, GstQuery* query)
{
    if (GST_QUERY_TYPE(query) != GST_QUERY_LATENCY)
        return GST_BASE_SRC_CLASS(Type::getParentClass())->query(element, query);
    Type::of(element).answerLatency(query);
    return TRUE;
}

} // unnamed namespace

// A flat table.
void Src::initClass(gpointer elementClass)
{
    GST_DEBUG_CATEGORY_INIT(vlxsrc_debug, "vlxsrc", 0, "Vellox source");
    describeElement(
        elementClass, "Vellox source", "Source/Audio",
        "Receives timestamped audio from another process of this machine", GST_PAD_SRC);
    installProperties(elementClass);

    auto* const srcClass = GST_BASE_SRC_CLASS(elementClass);
    srcClass->start = [](GstBaseSrc* self) -> gboolean { return Type::of(self).start(); };
    srcClass->stop = [](GstBaseSrc* self) -> gboolean { return Type::of(self).stop(); };
    srcClass->negotiate = [](GstBaseSrc*) -> gboolean { return TRUE; }; // the stream decides
    srcClass->query = answerQuery;
    srcClass->unlock = [](GstBaseSrc* self) -> gboolean { return Type::of(self).unlock(); };
    srcClass->unlock_stop = [](GstBaseSrc* self) -> gboolean
    { return Type::of(self).unlockStop(); };
    GST_PUSH_SRC_CLASS(elementClass)->create = [](GstPushSrc* self, GstBuffer** buffer)
    { return Type::of(self).create(buffer); };
}

GType getSrcType()
{
    static const GType type = Type::registerType(GST_TYPE_PUSH_SRC, "GstVlxSrc");
    return type;
}

} // namespace vlx::gst
