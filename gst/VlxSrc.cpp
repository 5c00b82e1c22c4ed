// vlxsrc receives the stream of a vlxsink, of `vlx send` or of any other Vellox sender, with its
// caps and timestamps. It waits until the sender starts, and restarts.
//
//   gst-launch-1.0 vlxsrc socket-name=kitchen ! audioconvert ! audioresample ! autoaudiosink
//   gst-launch-1.0 vlxsrc socket-name=kitchen eos-on-disconnect=1 ! wavenc ! filesink location=k
//   gst-play-1.0 vlx://kitchen
//
// Timestamps: a sample is due at the same time as at the sender, plus the latency that this element
// reports. This is exact to the nanosecond if the pipeline runs on the stream's clock: the system's
// monotonic clock, or the same network clock, which the element provides. On any other clock the
// time is converted by way of the monotonic clock. If the stream has no clock, or its time is
// unknown, the time of arrival is used. The buffer after a gap or a new connection has DISCONT.
//
// Element messages on the bus: "vlx-joined", "vlx-lost" and "vlx-stalled", with "socket-name",
// "text", and "time" in nanoseconds of the monotonic clock. Unprintable bytes appear as \xNN.

#include "VlxSrc.hpp"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include <gst/base/gstpushsrc.h>

#include <miscUtils/MiscUtils.hpp>
#include <vlxkit/Consumer.hpp>
#include <vlxkit/Discovery.hpp>
#include <vlxkit/Text.hpp>
#include <vlxkit/Users.hpp>

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
constexpr guint64 DefaultMaxQueueBytes = 64 << 20;
constexpr guint64 DefaultMaxQueueFrames = 10'000;
constexpr guint64 DefaultStallTimeoutNs = 2'000'000'000;
constexpr guint64 DefaultLatencyNs = 20'000'000;

// A sender that has no sequence yet answers the rest at once, and then nothing for so long.
// On a busy machine the first answer takes its time.
constexpr auto ProbeTimeout = std::chrono::milliseconds(250);

// Timestamps that are further away cannot be meant for the announced clock.
constexpr std::int64_t ImplausibleNs = 60'000'000'000;

struct Settings
{
    std::string name;
    std::string senderUser;
    guint64 timeoutNs = 0;
    bool eosOnDisconnect = false;
    int realtimePriority = 0;
    guint64 maxQueueTimeNs = DefaultMaxQueueTimeNs;
    guint64 maxQueueBytes = DefaultMaxQueueBytes;
    guint64 maxQueueFrames = DefaultMaxQueueFrames;
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
    kit::StreamFormat format;
    TimeValue timestamp = 0;
    TimeValue arrival = 0; // CLOCK_MONOTONIC
    ClockType clock = ClockType::Undetermined;
    // The stream's clock less CLOCK_MONOTONIC; unset while it cannot be told.
    std::optional<std::int64_t> streamOffset;
};

class Src : public WithSettings<Settings>
{
public:
    explicit Src(GstPushSrc* element);

    static void initClass(gpointer elementClass);
    void setProperty(guint id, const GValue* value);
    GstStructure* makeStatistics() const;

    // State changes.
    bool onStart();
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
    bool isOverfull(const Settings& settings) const;
    void dropOldest();

    // Streaming thread.
    GstFlowReturn pop(std::optional<QueuedFrame>& frame);
    GstFlowReturn applyFormat(const kit::StreamFormat& format);
    GstClockTime toRunningTime(const QueuedFrame& frame, GstClock* clock);
    bool isStreamClock(GstClock* clock);
    std::optional<ClockEndpoint> askForClock() const;

    GstBaseSrc* const m_element;
    GstElement* const m_gstElement;
    ProvidedClock m_providedClock;

    // Streaming thread, or state changes while there is none.
    std::optional<uid_t> m_senderUser;
    ClockEndpoint m_streamEndpoint; // of the last sender with a network clock
    std::optional<kit::StreamFormat> m_appliedFormat;
    bool m_warnedOfTimestamps = false;

    // Consumer's receiving thread.
    kit::StreamFormat m_format;

    // Set before m_mutex is locked: a flood in real time would keep others from that lock.
    std::atomic<bool> m_unlocked = false;

    mutable std::mutex m_mutex;
    std::condition_variable m_condition;
    // Guarded by m_mutex.
    std::deque<QueuedFrame> m_frames;
    std::size_t m_queuedBytes = 0;
    bool m_ending = false; // behind the queued frames
    std::uint64_t m_dropped = 0;
    bool m_discont = true; // of the next frame that is queued
    bool m_playing = false;
    bool m_joined = false;
    kit::ConsumerEvent::Kind m_lastEvent = kit::ConsumerEvent::Kind::Lost;
    std::chrono::steady_clock::time_point m_waitingSince;
    kit::ConsumerStatistics m_lastStatistics; // of a consumer that has been stopped
    kit::AgeHistogram m_lastAges;             // likewise
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
}

void Src::setProperty(guint id, const GValue* value)
{
    const guint64 formerLatency = getSettings().latencyNs;
    WithSettings::setProperty(id, value);
    if (getSettings().latencyNs != formerLatency)
        gst_element_post_message(m_gstElement, gst_message_new_latency(GST_OBJECT(m_element)));
}

GstStructure* Src::makeStatistics() const
{
    const std::lock_guard lock(m_mutex);
    const kit::ConsumerStatistics counts =
        m_consumer ? m_consumer->getStatistics() : m_lastStatistics;
    const kit::AgeHistogram ages = m_consumer ? m_consumer->getAges() : m_lastAges;
    const auto toCount = [](std::uint64_t value) { return static_cast<guint64>(value); };
    const auto toTime = [](std::optional<std::int64_t> value)
    { return static_cast<gint64>(value.value_or(0)); };
    return gst_structure_new(
        "application/x-vlxsrc-stats", "frames", G_TYPE_UINT64, toCount(counts.frames), "bytes",
        G_TYPE_UINT64, toCount(counts.bytes), "gaps", G_TYPE_UINT64, toCount(counts.gaps),
        "dropped", G_TYPE_UINT64, toCount(m_dropped), "reconnects", G_TYPE_UINT64,
        toCount(counts.reconnects), "stalls", G_TYPE_UINT64, toCount(counts.stalls), "age",
        G_TYPE_INT64, toTime(ages.getPercentile(0.5)), "age-max", G_TYPE_INT64,
        toTime(ages.getMax()), nullptr);
}

bool Src::onStart()
{
    forwardLibraryLog();
    const Settings settings = getSettings();
    m_senderUser = kit::findUser(settings.senderUser);
    if (!settings.senderUser.empty() && !m_senderUser)
    {
        GST_ELEMENT_ERROR(
            m_element, RESOURCE, SETTINGS,
            ("There is no user %s: set \"sender-user\" to a name or a number.",
             kit::quote(settings.senderUser).c_str()),
            (nullptr));
        return false;
    }
    if (settings.name.empty())
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
    m_ending = false;
    m_unlocked = false;
    m_lastStatistics = {};
    m_lastAges = {};
    m_streamEndpoint = {};
    m_appliedFormat.reset();
    return true;
}

// No frame may be due before the pipeline's base time: the stream is joined only after that is set,
// and frames that arrive during a pause are stale.
bool Src::onPlaying()
{
    {
        const std::lock_guard lock(m_mutex);
        m_frames.clear();
        m_queuedBytes = 0;
        m_discont = true;
        m_playing = true;
        if (m_consumer)
            return true;
        m_waitingSince = std::chrono::steady_clock::now();
    }

    const Settings settings = getSettings();
    kit::ConsumerOptions options;
    options.name = settings.name;
    options.senderUser = m_senderUser;
    options.stallTimeout = std::chrono::nanoseconds(settings.stallTimeoutNs);
    if (settings.realtimePriority > 0)
        options.realTime = {kit::RealTimeUse::Try, settings.realtimePriority};
    options.onNotice = [this](const std::string& notice)
    { GST_ELEMENT_WARNING(m_element, RESOURCE, SETTINGS, ("%s", notice.c_str()), (nullptr)); };
    kit::ConsumerCallbacks callbacks;
    callbacks.onFrame = [this](const kit::Frame& frame) { onFrame(frame); };
    callbacks.onFormat = [this](const kit::StreamFormat& format) { onFormat(format); };
    callbacks.onEvent = [this](const kit::ConsumerEvent& event) { onEvent(event); };
    {
        const std::lock_guard lock(m_mutex);
        m_consumer = std::make_unique<kit::Consumer>(std::move(options), std::move(callbacks));
    }
    const kit::Status started = m_consumer->start();
    if (!started)
        GST_ELEMENT_ERROR(
            m_element, RESOURCE, OPEN_READ,
            ("The stream cannot be received: %s", started.getText().c_str()), (nullptr));
    return static_cast<bool>(started);
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
    {
        m_lastStatistics = m_consumer->getStatistics();
        m_lastAges = m_consumer->getAges();
    }
    m_consumer.reset();
    m_frames.clear();
    m_queuedBytes = 0;
    return true;
}

// Asks the sender, if it is there, which network clock its timestamps stand on.
std::optional<ClockEndpoint> Src::askForClock() const
{
    const kit::SenderProbe probe = kit::probeSender(getSettings().name, ProbeTimeout);
    if (!probe.initialInfo || (m_senderUser && probe.user != m_senderUser) ||
        probe.initialInfo->timeSyncProtocol != TimeSyncProtocol::GstNetClock)
        return std::nullopt;
    return ClockEndpoint{probe.initialInfo->timeSyncIPAddress, probe.initialInfo->timeSyncPort};
}

void Src::setUpClock()
{
    const Settings settings = getSettings();
    if (!settings.provideClock || settings.name.empty())
        return;
    if (const auto endpoint = askForClock())
        m_providedClock.offer(*endpoint);
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
    m_unlocked = true;
    const std::lock_guard lock(m_mutex);
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

bool Src::isOverfull(const Settings& settings) const
{
    const auto exceeds = [](guint64 value, guint64 limit) { return limit != 0 && value > limit; };
    return m_frames.size() > 1 &&
           (exceeds(m_frames.size(), settings.maxQueueFrames) ||
            exceeds(m_queuedBytes, settings.maxQueueBytes) ||
            exceeds(m_frames.back().arrival - m_frames.front().arrival, settings.maxQueueTimeNs));
}

// The frame behind the hole is marked.
void Src::dropOldest()
{
    m_queuedBytes -= gst_buffer_get_size(m_frames.front().buffer.get());
    m_frames.pop_front();
    ++m_dropped;
    GST_BUFFER_FLAG_SET(m_frames.front().buffer.get(), GST_BUFFER_FLAG_DISCONT);
}

void Src::onFormat(const kit::StreamFormat& format)
{
    m_format = format;
}

// Elements behind this one rely on whole samples, and crash on empty buffers.
void Src::onFrame(const kit::Frame& frame)
{
    const std::size_t bytesPerSample = m_format.getBytesPerSample();
    const std::size_t samples = frame.data.size() / bytesPerSample;
    const std::size_t size = samples * bytesPerSample;
    QueuedFrame queued;
    if (size != 0)
        queued.buffer.reset(gst_buffer_new_memdup(frame.data.data(), size));
    queued.format = m_format;
    queued.timestamp = frame.timestamp;
    queued.arrival = frame.arrival;
    const Settings settings = getSettings();
    if (m_unlocked)
        return;

    const std::lock_guard lock(m_mutex);
    m_discont = m_discont || frame.gapNs != 0 || frame.isFirst;
    if (!m_playing || m_ending)
    {
        m_discont = true;
        return;
    }
    if (size == 0)
    {
        m_discont = m_discont || frame.duration != 0;
        ++m_dropped;
        return;
    }
    if (std::exchange(m_discont, false))
        GST_BUFFER_FLAG_SET(queued.buffer.get(), GST_BUFFER_FLAG_DISCONT);
    const bool isPlausible = frame.duration != 0 && frame.duration < ImplausibleNs;
    GST_BUFFER_DURATION(queued.buffer.get()) =
        isPlausible ? frame.duration : m_format.toNanoseconds(samples);
    queued.clock = frame.clock;
    queued.streamOffset = frame.clockOffsetNs;
    m_queuedBytes += size;
    m_frames.push_back(std::move(queued));
    while (isOverfull(settings))
        dropOldest();
    m_condition.notify_all();
}

void Src::postMessage(const char* name, const kit::ConsumerEvent& event)
{
    GstStructure* const fields = gst_structure_new(
        name, "socket-name", G_TYPE_STRING, kit::toPrintable(getSettings().name).c_str(), "text",
        G_TYPE_STRING, kit::toPrintable(event.text).c_str(), "time", G_TYPE_UINT64,
        static_cast<guint64>(event.time), nullptr);
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
        {
            m_ending = true;
            m_condition.notify_all();
        }
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
                m_element, RESOURCE, OPEN_READ, ("%s", kit::toPrintable(event.text).c_str()),
                (nullptr));
        break;
    }
}

// Leaves the frame unset at the end of the stream.
GstFlowReturn Src::pop(std::optional<QueuedFrame>& frame)
{
    const std::chrono::nanoseconds timeout(getSettings().timeoutNs);
    std::unique_lock lock(m_mutex);
    while (m_frames.empty() && !m_ending && !m_unlocked)
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
                ("There was no sender %s for %.3f seconds.", kit::quote(getSettings().name).c_str(),
                 std::chrono::duration<double>(timeout).count()),
                (nullptr));
            return GST_FLOW_ERROR;
        }
    }
    if (m_unlocked)
        return GST_FLOW_FLUSHING;
    if (m_frames.empty())
    {
        m_ending = false;
        return GST_FLOW_EOS;
    }
    frame = std::move(m_frames.front());
    m_frames.pop_front();
    m_queuedBytes -= gst_buffer_get_size(frame->buffer.get());
    return GST_FLOW_OK;
}

GstFlowReturn Src::applyFormat(const kit::StreamFormat& format)
{
    if (m_appliedFormat == format)
        return GST_FLOW_OK;
    GST_INFO_OBJECT(m_element, "format %s", toText(format).c_str());
    if (!isInTemplate(format))
    {
        GST_ELEMENT_ERROR(
            m_element, STREAM, FORMAT,
            ("The stream's format is not supported: %s; the limit is %u channels.",
             toText(format).c_str(), MaxChannels),
            (nullptr));
        return GST_FLOW_ERROR;
    }
    m_warnedOfTimestamps = false;
    m_appliedFormat = format;
    GstCaps* const caps = toCaps(format);
    const bool accepted = gst_base_src_set_caps(m_element, caps) != FALSE;
    gst_caps_unref(caps);
    return accepted ? GST_FLOW_OK : GST_FLOW_NOT_NEGOTIATED;
}

// Whether this clock follows the provider that the present sender announces.
bool Src::isStreamClock(GstClock* clock)
{
    const auto followed = getNetClockEndpoint(clock);
    if (!followed)
        return false;
    const kit::ConsumerClock announced = m_consumer->getClock();
    if (announced.type == ClockType::SyncedNetClock) // otherwise these are frames of one before
        m_streamEndpoint = {announced.address, announced.port};
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
    std::optional<QueuedFrame> frame;
    GstFlowReturn flow = pop(frame);
    if (flow == GST_FLOW_OK)
        flow = applyFormat(frame->format);
    if (flow != GST_FLOW_OK)
        return flow;
    if (const ObjectPtr<GstClock> clock{gst_element_get_clock(m_gstElement)})
        GST_BUFFER_PTS(frame->buffer.get()) = toRunningTime(*frame, clock.get());
    *buffer = frame->buffer.release();
    return GST_FLOW_OK;
}

// From here on: the element as GObject knows it.

using Type = ElementType<Src, GstPushSrc>;

// A flat table.
void installProperties(gpointer elementClass)
{
    auto& properties = Src::getProperties();
    properties.begin(elementClass);
    properties.addText(
        "sender-user", &Settings::senderUser,
        "User whose sender is joined, by name or number; senders of other users are waited out; "
        "empty: any");
    properties.addNumber(
        "timeout", &Settings::timeoutNs, Mutability::Stopped,
        "Time to wait for a sender before posting an error, in nanoseconds; 0: no limit");
    properties.addFlag(
        "eos-on-disconnect", &Settings::eosOnDisconnect, Mutability::AnyTime,
        "Send EOS when the sender disconnects, instead of waiting for the next sender");
    properties.addNumber(
        "max-queue-time", &Settings::maxQueueTimeNs, Mutability::AnyTime,
        "How long a frame may wait for a busy pipeline, in nanoseconds; older frames are dropped "
        "and counted; 0: no limit");
    properties.addNumber(
        "max-queue-bytes", &Settings::maxQueueBytes, Mutability::AnyTime,
        "Bytes of audio that may wait for a busy pipeline; 0: no limit");
    properties.addNumber(
        "max-queue-frames", &Settings::maxQueueFrames, Mutability::AnyTime,
        "Frames that may wait for a busy pipeline; 0: no limit");
    properties.addNumber(
        "stall-timeout", &Settings::stallTimeoutNs, Mutability::Stopped,
        "Reconnect after this time without a frame, in nanoseconds; 0: never");
    properties.addNumber(
        "latency", &Settings::latencyNs, Mutability::AnyTime,
        "Latency that is reported to the pipeline: the time that a frame may take to arrive, in "
        "nanoseconds");
    properties.addFlag(
        "provide-clock", &Settings::provideClock, Mutability::Stopped,
        "Provide the stream's network clock to the pipeline, if the stream has one and the sender "
        "is present on the way to PAUSED");
    properties.addStatistics(
        "Frames and bytes received, gaps, frames dropped (too old for a busy pipeline, or without "
        "a "
        "whole sample), reconnects, stalls; age of frames on arrival, median and largest, in "
        "nanoseconds");
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
