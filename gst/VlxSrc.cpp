// vlxsrc receives a stream with its caps and timestamps: PCM audio from any Vellox sender, such as
// `vlx send`, and any other media from vlxsink. It waits for the sender to start, and to restart.
//
//   gst-launch-1.0 vlxsrc socket-name=kitchen ! audioconvert ! audioresample ! autoaudiosink
//   gst-launch-1.0 vlxsrc socket-name=kitchen eos-on-disconnect=1 ! wavenc ! filesink location=k
//   gst-launch-1.0 vlxsrc socket-name=camera ! decodebin ! videoconvert ! autovideosink
//   gst-play-1.0 vlx://kitchen
//
// Timestamps: a sample is due at the same time as at the sender, plus the latency that this element
// reports. This is exact to the nanosecond if the pipeline runs on the stream's clock: the system's
// monotonic clock, or the same network clock, which the element provides. On any other clock the
// time is converted by way of the monotonic clock. If the stream has no clock, or its time is
// unknown, the time of arrival is used. The buffer after a gap or a new connection has DISCONT.
//
// Encoded media begins with a key frame, also after lost frames: delta units that cannot be decoded
// are dropped. If no key frame comes, vlxsrc leaves the stream and joins it again, so that vlxsink
// asks for one. After a late join, vlxsrc first sends the headers in the caps ("streamheader"). If
// the codec or the caps are not supported, vlxsrc posts a warning with the cause, and waits for
// another sender.
//
// Element messages on the bus: "vlx-joined", "vlx-lost" and "vlx-stalled", with "socket-name",
// "text", and "time" in nanoseconds of the monotonic clock. Unprintable bytes appear as \xNN.

#include "VlxSrc.hpp"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <variant>

#include <gst/base/gstpushsrc.h>

#include <vlxkit/Consumer.hpp>
#include <vlxkit/Discovery.hpp>
#include <vlxkit/Media.hpp>
#include <vlxkit/Text.hpp>
#include <vlxkit/Users.hpp>

#include "Caps.hpp"
#include "Clocks.hpp"
#include "ElementType.hpp"
#include "LogBridge.hpp"
#include "MediaFormat.hpp"
#include "MediaFrames.hpp"

GST_DEBUG_CATEGORY_STATIC(vlxsrc_debug);
#define GST_CAT_DEFAULT vlxsrc_debug

namespace vlx::gst
{

namespace
{

using kit::ConsumerEvent;
using ClockType = Receiver::StreamClockType;
using SteadyClock = std::chrono::steady_clock;

constexpr guint64 DefaultMaxQueueTimeNs = 1'000'000'000;
constexpr guint64 DefaultMaxQueueBytes = 64 << 20;
constexpr guint64 DefaultMaxQueueFrames = 10'000;
constexpr guint64 DefaultStallTimeoutNs = 2'000'000'000;
constexpr guint64 DefaultLatencyNs = 20'000'000;

// A sender normally answers at once, but not on a busy machine.
constexpr auto ConnectTimeout = std::chrono::milliseconds(250);

// For a key frame that the encoder makes by itself, and after a join for the one that vlxsink asks
// for. An encoder may look far ahead: the pause doubles until frames have come for a while.
constexpr TimeValue KeyframeWaitNs = 200'000'000;
constexpr TimeValue MinRejoinPauseNs = 1'000'000'000;
constexpr TimeValue MaxRejoinPauseNs = 8 * MinRejoinPauseNs;

// Timestamps that are further away cannot be meant for the announced clock.
constexpr std::int64_t ImplausibleNs = 60'000'000'000;

bool isPlausible(TimeValue duration)
{
    return duration != 0 && duration < ImplausibleNs;
}

// Frames that were due before the pipeline began are due at its beginning.
GstClockTime toClockTime(std::int64_t runningTime)
{
    return static_cast<GstClockTime>(std::max(runningTime, std::int64_t{0}));
}

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
    bool waitForKeyframe = true;

    kit::QueueLimits getQueueLimits() const
    {
        return {std::chrono::nanoseconds(maxQueueTimeNs), maxQueueBytes, maxQueueFrames};
    }
};

/// Refuses media whose caps are not supported.
class MediaDepayloader : public kit::PlainDepayloader
{
public:
    MediaDepayloader() : PlainDepayloader(kit::MediaFourcc) {}

    bool processCodecHeader(const ByteView& codecHeader) override
    {
        return MediaFormat::parse(std::string(codecHeader.begin(), codecHeader.end())).has_value();
    }
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
    void setUpClock();
    void onPlaying();
    void onPaused();
    void onStop();

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
    void interruptConsumer(bool on);

    // Consumer's threads.
    void onEvent(const ConsumerEvent& event);

    // Streaming thread.
    std::chrono::nanoseconds getReadTimeout();
    GstFlowReturn applyItem(kit::ConsumerItem& item, GstBuffer** buffer);
    void noteClock();
    GstFlowReturn applyFormat(const kit::StreamFormat& format);
    GstFlowReturn applyCodec(const kit::CodecFormat& codec);
    GstFlowReturn setCaps(GstCaps* caps);
    bool endsStream(const ConsumerEvent& event);
    GstBuffer* toBuffer(kit::ReceivedFrame&& frame);
    GstBuffer* toPcmBuffer(kit::ReceivedFrame&& frame);
    GstBuffer* toMediaBuffer(kit::ReceivedFrame&& frame);
    void awaitKeyframe(TimeValue now, bool isNew);
    void sendHeadersBefore(GstBuffer** buffer);
    std::optional<std::int64_t> findRunningTime(const kit::FrameInfo& frame);

    GstBaseSrc* const m_element;
    GstElement* const m_gstElement;
    ProvidedClock m_providedClock;

    // Streaming thread, or state changes while there is none.
    PipelineClock m_clock;
    ClockEndpoint m_streamEndpoint; // of the last sender with a network clock
    std::variant<std::monostate, kit::StreamFormat, MediaFormat> m_format;
    BufferListPtr m_headers;    // needed before the next buffer; null: no headers
    LossFilter m_losses;        // of media
    TimeValue m_rejoinTime = 0; // if no key frame comes
    TimeValue m_rejoinPauseNs = MinRejoinPauseNs;
    bool m_isRefused = false; // the format, by the elements behind this one
    bool m_isDiscont = false; // the next buffer
    bool m_isJoined = false;
    std::optional<SteadyClock::time_point> m_waitingSince; // for a sender
    bool m_warnedOfTimestamps = false;

    // Any thread.
    std::atomic<bool> m_unlocked = false;
    std::atomic<std::uint64_t> m_incomplete = 0; // frames without a whole sample or picture
    std::atomic<std::uint64_t> m_skipped = 0;    // delta units that cannot be decoded

    // Shared by both, and by threads that read or change properties.
    mutable std::mutex m_mutex;
    MediaDepayloader m_mediaDepayloader;
    // State changes set it, with m_mutex held; kept after the stop, for its statistics.
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
    const Settings settings = getSettings();
    if (settings.latencyNs != formerLatency)
        gst_element_post_message(m_gstElement, gst_message_new_latency(GST_OBJECT(m_element)));
    const std::lock_guard lock(m_mutex);
    if (m_consumer)
        m_consumer->setQueueLimits(settings.getQueueLimits());
}

GstStructure* Src::makeStatistics() const
{
    kit::ConsumerStatistics counts;
    kit::AgeHistogram ages;
    {
        const std::lock_guard lock(m_mutex);
        if (m_consumer)
        {
            counts = m_consumer->getStatistics();
            ages = m_consumer->getAges();
        }
    }
    const auto toCount = [](std::uint64_t value) { return static_cast<guint64>(value); };
    const auto toTime = [](std::optional<std::int64_t> value)
    { return static_cast<gint64>(value.value_or(0)); };
    return gst_structure_new(
        "application/x-vlxsrc-stats", "frames", G_TYPE_UINT64, toCount(counts.frames), "bytes",
        G_TYPE_UINT64, toCount(counts.bytes), "gaps", G_TYPE_UINT64, toCount(counts.gaps),
        "dropped", G_TYPE_UINT64, toCount(counts.dropped + m_incomplete), "lost", G_TYPE_UINT64,
        toCount(counts.lost), "skipped", G_TYPE_UINT64, toCount(m_skipped), "reconnects",
        G_TYPE_UINT64, toCount(counts.reconnects), "stalls", G_TYPE_UINT64, toCount(counts.stalls),
        "age", G_TYPE_INT64, toTime(ages.getPercentile(0.5)), "age-max", G_TYPE_INT64,
        toTime(ages.getMax()), nullptr);
}

// No frame may be due before the pipeline's base time. So the consumer connects to a sender, which
// announces its clock, but joins it only when that time is set.
bool Src::onStart()
{
    forwardLibraryLog();
    const Settings settings = getSettings();
    kit::ConsumerOptions options;
    options.name = settings.name;
    options.senderUser = kit::findUser(settings.senderUser);
    options.stallTimeout = std::chrono::nanoseconds(settings.stallTimeoutNs);
    options.queue = settings.getQueueLimits();
    if (settings.realtimePriority > 0)
        options.realTime = {kit::RealTimeUse::Try, settings.realtimePriority};
    options.onNotice = [this](const std::string& notice)
    { GST_ELEMENT_WARNING(m_element, RESOURCE, SETTINGS, ("%s", notice.c_str()), (nullptr)); };
    if (!settings.senderUser.empty() && !options.senderUser)
    {
        GST_ELEMENT_ERROR(
            m_element, RESOURCE, SETTINGS,
            ("There is no user %s: set \"sender-user\" to a name or a number.",
             kit::quote(settings.senderUser).c_str()),
            (nullptr));
        return false;
    }
    if (!checkName(m_element, settings.name))
        return false;

    m_incomplete = 0;
    m_skipped = 0;
    m_isDiscont = false;
    m_isJoined = false;
    m_rejoinPauseNs = MinRejoinPauseNs;
    m_waitingSince.reset();
    m_streamEndpoint = {};
    m_format = {};
    m_headers.reset();
    {
        const std::lock_guard lock(m_mutex);
        m_consumer = std::make_unique<kit::Consumer>(
            std::move(options),
            kit::ConsumerCallbacks{.onEvent = [this](const auto& event) { onEvent(event); }});
    }
    m_consumer->addDepayloader(m_mediaDepayloader);
    m_consumer->pause(true);
    const kit::Status started = m_consumer->start();
    if (!started)
        GST_ELEMENT_ERROR(
            m_element, RESOURCE, OPEN_READ,
            ("The stream cannot be received: %s", started.getText().c_str()), (nullptr));
    return static_cast<bool>(started);
}

void Src::setUpClock()
{
    const Settings settings = getSettings();
    if (!settings.provideClock || !kit::isSenderPresent(settings.name) ||
        !m_consumer->waitUntilJoined(ConnectTimeout))
        return;
    const kit::ConsumerClock clock = m_consumer->getClock();
    if (clock.type == ClockType::SyncedNetClock)
        m_providedClock.offer({clock.address, clock.port});
}

void Src::onPlaying()
{
    m_consumer->pause(false);
}

// Frames that arrive during a pause are stale.
void Src::onPaused()
{
    m_consumer->pause(true);
}

void Src::onStop()
{
    m_consumer->stop();
    m_clock.set(nullptr);
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
    interruptConsumer(true);
    return true;
}

bool Src::unlockStop()
{
    m_unlocked = false;
    m_isDiscont = true;
    interruptConsumer(false);
    return true;
}

// A flush may come before the first start.
void Src::interruptConsumer(bool on)
{
    const std::lock_guard lock(m_mutex);
    if (m_consumer)
        m_consumer->interrupt(on);
}

// The consumer reports an obstacle once.
void Src::onEvent(const ConsumerEvent& event)
{
    GST_INFO_OBJECT(m_element, "%s: %s", toString(event.kind), event.text.c_str());
    const std::string text = kit::toPrintable(event.text);
    if (event.kind >= ConsumerEvent::Kind::CannotPlay)
    {
        GST_ELEMENT_WARNING(m_element, RESOURCE, OPEN_READ, ("%s", text.c_str()), (nullptr));
        return;
    }
    GstStructure* const fields = gst_structure_new(
        (std::string("vlx-") + toString(event.kind)).c_str(), "socket-name", G_TYPE_STRING,
        kit::toPrintable(getSettings().name).c_str(), "text", G_TYPE_STRING, text.c_str(), "time",
        G_TYPE_UINT64, static_cast<guint64>(event.time), nullptr);
    gst_element_post_message(m_gstElement, gst_message_new_element(GST_OBJECT(m_element), fields));
}

std::chrono::nanoseconds Src::getReadTimeout()
{
    const std::chrono::nanoseconds timeout(getSettings().timeoutNs);
    if (timeout.count() == 0 || m_isJoined)
        return std::chrono::nanoseconds(-1);
    const auto now = SteadyClock::now();
    if (!m_waitingSince)
        m_waitingSince = now;
    const std::chrono::nanoseconds left = timeout - (now - *m_waitingSince);
    return std::max(left, std::chrono::nanoseconds(0));
}

GstFlowReturn Src::applyFormat(const kit::StreamFormat& format)
{
    const auto* const former = std::get_if<kit::StreamFormat>(&m_format);
    if (former != nullptr && *former == format)
        return GST_FLOW_OK;
    GST_INFO_OBJECT(m_element, "format %s", toText(format).c_str());
    if (!isPlayable(format))
    {
        GST_ELEMENT_ERROR(
            m_element, STREAM, FORMAT,
            ("The stream's format is not supported: %s; the limit is %u channels.",
             toText(format).c_str(), MaxChannels),
            (nullptr));
        return GST_FLOW_ERROR;
    }
    m_format = format;
    m_headers.reset();
    m_isRefused = false;
    return setCaps(CapsPtr(toCaps(format)).get());
}

GstFlowReturn Src::applyCodec(const kit::CodecFormat& codec)
{
    auto media = MediaFormat::parse(std::string(codec.header.begin(), codec.header.end()));
    const auto* const former = std::get_if<MediaFormat>(&m_format);
    if (!media || (former != nullptr && *former == *media && !m_isRefused))
        return GST_FLOW_OK;
    GST_INFO_OBJECT(m_element, "caps %s", media->getText().c_str());
    m_format = std::move(*media);
    m_headers = std::get<MediaFormat>(m_format).makeHeaders();
    GstCaps* const caps = std::get<MediaFormat>(m_format).getCaps();
    m_isRefused = gst_pad_peer_query_accept_caps(GST_BASE_SRC_PAD(m_element), caps) == FALSE;
    if (!m_isRefused)
        return setCaps(caps);
    GST_ELEMENT_WARNING(
        m_element, STREAM, FORMAT,
        ("The pipeline cannot play the stream: the next element does not accept its caps."),
        ("%s", std::get<MediaFormat>(m_format).getText().c_str()));
    return GST_FLOW_OK;
}

GstFlowReturn Src::setCaps(GstCaps* caps)
{
    m_warnedOfTimestamps = false;
    return gst_base_src_set_caps(m_element, caps) != FALSE ? GST_FLOW_OK : GST_FLOW_NOT_NEGOTIATED;
}

bool Src::endsStream(const ConsumerEvent& event)
{
    m_isJoined = event.kind == ConsumerEvent::Kind::Joined;
    m_waitingSince.reset();
    if (m_isJoined)
        m_rejoinTime = event.time + m_rejoinPauseNs;
    return event.kind == ConsumerEvent::Kind::Lost && getSettings().eosOnDisconnect;
}

// Negative for a frame that was due before the pipeline began; not set without a clock.
std::optional<std::int64_t> Src::findRunningTime(const kit::FrameInfo& frame)
{
    m_clock.set(ObjectPtr<GstClock>(gst_element_get_clock(m_gstElement)));
    if (m_clock.get() == nullptr)
        return std::nullopt;
    const std::int64_t clockOffset = m_clock.getOffset();
    const auto toPipelineTime = [clockOffset](TimeValue time) // of a sender: any number
    { return static_cast<std::int64_t>(time + static_cast<TimeValue>(clockOffset)); };
    const std::int64_t arrival = toPipelineTime(frame.arrival);
    std::int64_t due = arrival;
    if (gst_base_src_get_do_timestamp(m_element) == FALSE)
    {
        if (frame.clock == ClockType::SyncedNetClock && m_clock.getProvider() == m_streamEndpoint)
            due = static_cast<std::int64_t>(frame.timestamp);
        else if (const auto monotonic = frame.getMonotonicTime())
            due = toPipelineTime(*monotonic);
    }
    const bool isNear = arrival - ImplausibleNs <= due && due <= arrival + ImplausibleNs;
    if (!isNear)
    {
        if (!std::exchange(m_warnedOfTimestamps, true))
            GST_ELEMENT_WARNING(
                m_element, STREAM, FORMAT,
                ("The stream's timestamps are not on the clock that it announces."),
                ("using the times of arrival"));
        due = arrival;
    }
    return due - static_cast<std::int64_t>(gst_element_get_base_time(m_gstElement));
}

// The buffer holds the frame, which owns its data. Elements behind this one rely on whole samples,
// and crash on empty buffers: null if there is no whole sample.
GstBuffer* Src::toPcmBuffer(kit::ReceivedFrame&& frame)
{
    const auto& format = std::get<kit::StreamFormat>(m_format);
    const std::size_t bytesPerSample = format.getBytesPerSample();
    const std::size_t samples = frame.data.size() / bytesPerSample;
    m_isDiscont = m_isDiscont || frame.isFirst || frame.gapNs != 0 || frame.numDropped != 0;
    if (samples == 0)
    {
        m_isDiscont = m_isDiscont || frame.duration != 0;
        ++m_incomplete;
        return nullptr;
    }
    auto kept = std::make_unique<kit::ReceivedFrame>(std::move(frame));
    const auto discard = [](gpointer data) { delete static_cast<kit::ReceivedFrame*>(data); };
    GstBuffer* const buffer = gst_buffer_new_wrapped_full(
        GstMemoryFlags{}, kept->data.data(), kept->data.size(), 0, samples * bytesPerSample,
        kept.get(), discard);
    const kit::ReceivedFrame& held = *kept.release();
    if (std::exchange(m_isDiscont, false))
        GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DISCONT);
    GST_BUFFER_DURATION(buffer) =
        isPlausible(held.duration) ? held.duration : format.toNanoseconds(samples);
    if (const auto time = findRunningTime(held))
        GST_BUFFER_PTS(buffer) = toClockTime(*time);
    return buffer;
}

// Null for a frame without valid data.
GstBuffer* Src::toMediaBuffer(kit::ReceivedFrame&& frame)
{
    const auto& format = std::get<MediaFormat>(m_format);
    const auto media = kit::parseMediaFrame(frame.data);
    m_isDiscont = m_isDiscont || frame.isFirst || frame.numDropped != 0;
    if (!media || !format.isWhole(media->data.size()))
    {
        m_isDiscont = true;
        ++m_incomplete;
        return nullptr;
    }
    const kit::MediaHead head = media->head;
    const bool wasDamaged = m_losses.isDamaged();
    m_losses.add(head, m_isDiscont);
    m_isDiscont = m_losses.isLoss();
    if (m_losses.isDamaged() && format.hasKeyFrames() && getSettings().waitForKeyframe)
    {
        m_isDiscont = true;
        ++m_skipped;
        awaitKeyframe(frame.arrival, !wasDamaged);
        return nullptr;
    }
    // A pipeline that is too slow loses frames again soon.
    if ((head.flags & kit::MediaHead::Header) == 0 &&
        frame.arrival > m_rejoinTime + m_rejoinPauseNs)
        m_rejoinPauseNs = MinRejoinPauseNs;
    if (m_headers && beginsHeaders(*media, m_headers.get()))
        m_headers.reset();
    const TimeValue duration = frame.duration;
    const auto time = findRunningTime(frame);
    GstBuffer* const buffer = makeBuffer(std::move(frame), head);
    format.describe(buffer);
    if (std::exchange(m_isDiscont, false))
        GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DISCONT);
    if (isPlausible(duration))
        GST_BUFFER_DURATION(buffer) = duration;
    if (time && (head.flags & kit::MediaHead::Decoding) != 0)
        GST_BUFFER_DTS(buffer) = toClockTime(*time);
    const std::int64_t offset = head.ptsOffsetNs.value_or(ImplausibleNs);
    if (time && -ImplausibleNs < offset && offset < ImplausibleNs)
        GST_BUFFER_PTS(buffer) = toClockTime(*time + offset);
    return buffer;
}

// Takes over the buffer, and leaves null.
void Src::sendHeadersBefore(GstBuffer** buffer)
{
    GstBufferList* const list = m_headers.release();
    GstBuffer* const first = gst_buffer_list_get_writable(list, 0);
    if (GST_BUFFER_FLAG_IS_SET(*buffer, GST_BUFFER_FLAG_DISCONT))
        GST_BUFFER_FLAG_SET(first, GST_BUFFER_FLAG_DISCONT);
    // GstBaseSrc would set 0.
    GST_BUFFER_PTS(first) = GST_BUFFER_PTS(*buffer);
    GST_BUFFER_DTS(first) = GST_BUFFER_DTS(*buffer);
    gst_buffer_list_add(list, std::exchange(*buffer, nullptr));
    gst_base_src_submit_buffer_list(m_element, list);
}

void Src::awaitKeyframe(TimeValue now, bool isNew)
{
    if (isNew)
        m_rejoinTime = std::max(m_rejoinTime, now + KeyframeWaitNs);
    // A sender that ends meanwhile is not reported as lost.
    if (now < m_rejoinTime || getSettings().eosOnDisconnect)
        return;
    m_rejoinTime = now + m_rejoinPauseNs;
    m_rejoinPauseNs = std::min(2 * m_rejoinPauseNs, MaxRejoinPauseNs);
    m_consumer->rejoin();
}

GstBuffer* Src::toBuffer(kit::ReceivedFrame&& frame)
{
    if (m_isRefused)
    {
        ++m_incomplete;
        return nullptr;
    }
    return std::holds_alternative<MediaFormat>(m_format) ? toMediaBuffer(std::move(frame))
                                                         : toPcmBuffer(std::move(frame));
}

void Src::noteClock()
{
    const kit::ConsumerClock clock = m_consumer->getClock();
    if (clock.type == ClockType::SyncedNetClock)
        m_streamEndpoint = {clock.address, clock.port};
}

GstFlowReturn Src::applyItem(kit::ConsumerItem& item, GstBuffer** buffer)
{
    if (auto* const frame = std::get_if<kit::ReceivedFrame>(&item))
    {
        *buffer = toBuffer(std::move(*frame));
        return GST_FLOW_OK;
    }
    if (const auto* const event = std::get_if<ConsumerEvent>(&item))
        return endsStream(*event) ? GST_FLOW_EOS : GST_FLOW_OK;
    noteClock();
    const auto* const codec = std::get_if<kit::CodecFormat>(&item);
    return codec != nullptr ? applyCodec(*codec) : applyFormat(std::get<kit::StreamFormat>(item));
}

GstFlowReturn Src::create(GstBuffer** buffer)
{
    *buffer = nullptr;
    while (std::optional<kit::ConsumerItem> item = m_consumer->read(getReadTimeout()))
    {
        const GstFlowReturn flow = applyItem(*item, buffer);
        if (flow != GST_FLOW_OK)
            return flow;
        if (*buffer == nullptr)
            continue;
        if (m_headers)
            sendHeadersBefore(buffer);
        return flow;
    }
    if (m_unlocked)
        return GST_FLOW_FLUSHING;
    const Settings settings = getSettings();
    GST_ELEMENT_ERROR(
        m_element, RESOURCE, NOT_FOUND,
        ("There was no sender %s for %.3f seconds.", kit::quote(settings.name).c_str(),
         std::chrono::duration<double>(std::chrono::nanoseconds(settings.timeoutNs)).count()),
        (nullptr));
    return GST_FLOW_ERROR;
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
        "User whose sender is joined, by name or number; for other users' senders vlxsrc posts a "
        "warning and waits; empty: any");
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
        "Bytes of media that may wait for a busy pipeline; 0: no limit");
    properties.addNumber(
        "max-queue-frames", &Settings::maxQueueFrames, Mutability::AnyTime,
        "Frames that may wait for a busy pipeline; 0: no limit");
    properties.addNumber(
        "stall-timeout", &Settings::stallTimeoutNs, Mutability::Stopped,
        "Reconnect after this time without a frame, counted from the end of the last one, in "
        "nanoseconds; 0: never");
    properties.addNumber(
        "latency", &Settings::latencyNs, Mutability::AnyTime,
        "Latency that is reported to the pipeline: the time that a frame may take to arrive, in "
        "nanoseconds");
    properties.addFlag(
        "provide-clock", &Settings::provideClock, Mutability::Stopped,
        "Provide the stream's network clock to the pipeline, if the stream has one and the sender "
        "is present on the way to PAUSED");
    properties.addFlag(
        "wait-for-keyframe", &Settings::waitForKeyframe, Mutability::AnyTime,
        "Begin encoded media with a key frame, also after lost frames, and drop delta units until "
        "then");
    properties.addStatistics(
        "Frames and bytes received, gaps, frames dropped (too old for a busy pipeline, or without "
        "a whole sample or picture), lost in shared memory, or skipped until a key frame; "
        "reconnects, stalls; age of frames on arrival, median and largest, in nanoseconds");
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
        elementClass, "Vellox source", "Source/Audio/Video",
        "Receives timestamped media from another process of this machine", GST_PAD_SRC);
    installProperties(elementClass);

    auto* const srcClass = GST_BASE_SRC_CLASS(elementClass);
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
