// vlxsink sends any media, with caps and timestamps, to any number of other processes. Receivers
// may come and go; the sink never waits for them. Receive with vlxsrc, or PCM also with
// `vlx receive`.
//
//   gst-launch-1.0 audiotestsrc ! audio/x-raw,rate=48000,channels=2 ! vlxsink socket-name=kitchen
//   gst-launch-1.0 vlxsrc socket-name=kitchen ! audioconvert ! autoaudiosink
//   gst-launch-1.0 v4l2src ! video/x-raw,width=1920,height=1080 ! vlxsink socket-name=camera
//   gst-launch-1.0 vlxsrc socket-name=camera ! videoconvert ! autovideosink
//
// Interleaved audio in the formats of the kit with up to 63 channels is sent as PCM, which every
// receiver can play. All other media is sent with its caps. They must be fixed, in system memory,
// at most 64 KiB as text, and without nested structures. Each buffer is sent with its flags, PTS,
// DTS, duration and offset, but without metadata: padded pictures and planes are packed.
//
// The sink opens the stream when it prerolls. By default preroll lasts until a receiver has joined,
// so that the receiver gets the beginning. Each buffer is sent when it is due, stamped with that
// time: base time, running time and latency, on the announced clock.
//
// In "pubsub" a receiver loses frames that it cannot take at once, so the sink never sends faster
// than at twice the speed, not even with sync=false. "pipeline" has one receiver and waits for it.
//
// By default, large frames of media other than PCM are sent in shared memory, where they arrive far
// sooner. Only receivers of the kit, such as vlxsrc, can read them. Upstream elements can fill the
// memory that is sent, without a copy.
//
// When a receiver joins a stream that is not PCM, the sink requests a key frame upstream.
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
#include <variant>
#include <vector>

#include <gst/base/gstbasesink.h>
#include <gst/net/gstnet.h>
#include <gst/video/video.h>

#include <miscUtils/MiscUtils.hpp>
#include <vlxkit/Pace.hpp>
#include <vlxkit/Producer.hpp>

#include "Caps.hpp"
#include "Clocks.hpp"
#include "ElementType.hpp"
#include "FrameAllocator.hpp"
#include "LogBridge.hpp"
#include "MediaFormat.hpp"
#include "MediaFrames.hpp"

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

// An additional value beside those of kit::Carriage.
constexpr int SharedForMedia = 3;

// Far longer than a receiver on a busy machine takes to copy a frame.
constexpr auto MediaSpan = std::chrono::milliseconds(500);
constexpr std::size_t MaxMediaMemory = 256 << 20;

// Between frames of media.
constexpr TimeValue MinSpacingNs = 200'000;
constexpr TimeValue MaxSpacingNs = 1'000'000'000;

// Far more than a receiver needs to join a stream that was opened again, unless it has left.
constexpr std::chrono::milliseconds RejoinTimeout(500);

using SinkFormat = std::variant<kit::StreamFormat, MediaFormat>;

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
    int sharedMemory = SharedForMedia;

    kit::Carriage getCarriage(bool isMedia) const
    {
        if (sharedMemory == SharedForMedia)
            return isMedia ? kit::Carriage::Automatic : kit::Carriage::Inline;
        return static_cast<kit::Carriage>(sharedMemory);
    }
};

/// What the timestamps stand on, and where receivers find it.
struct Announcement
{
    TimeSyncProtocol protocol = TimeSyncProtocol::MonotonicSystemClock;
    ClockEndpoint endpoint;
    GstClock* served = nullptr; // for comparison only

    bool operator==(const Announcement&) const = default;
};

/// The frame of media that was sent last.
struct LastMedia
{
    TimeValue sent = 0;
    TimeValue timestamp = 0;
    TimeValue duration = 0;
};

void prerollBeforeChain(GstPad* pad);

class Sink : public WithSettings<Settings>
{
public:
    explicit Sink(GstBaseSink* element)
        : WithSettings(element),
          baseChain(GST_PAD_CHAINFUNC(GST_BASE_SINK_PAD(element))),
          baseChainList(GST_PAD_CHAINLISTFUNC(GST_BASE_SINK_PAD(element))),
          m_element(element),
          m_providedClock(GST_ELEMENT(element))
    {
        // Nothing is rendered here; elements that render have their own deadline.
        gst_base_sink_set_processing_deadline(element, 0);
        prerollBeforeChain(GST_BASE_SINK_PAD(element));
        // It would keep the memory of a frame, and a pool would give that out again, to be copied.
        gst_base_sink_set_last_sample_enabled(element, FALSE);
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

    static GstCaps* getCaps(GstCaps* filter);
    bool setCaps(GstCaps* caps);
    bool proposeAllocation(GstQuery* query) const;
    // Makes the stream ready for a buffer, if it has to preroll. Called with the stream lock held.
    GstFlowReturn preroll(GstBuffer* buffer);
    // Called with the preroll lock held.
    GstFlowReturn render(GstBuffer* buffer);

    // From another thread, while one of the above may be waiting.
    bool unlock();
    bool unlockStop();

    // Of GstBaseSink's pad.
    const GstPadChainFunction baseChain;
    const GstPadChainListFunction baseChainList;

private:
    bool isUnlocked() const;
    bool noteUnlocks();
    GstFlowReturn waitForUnlockStop();
    GstFlowReturn fail(const std::string& problem);
    GstFlowReturn fail(const kit::Status& status);
    bool isMedia() const
    {
        return m_format && std::holds_alternative<MediaFormat>(*m_format);
    }
    std::optional<Announcement> chooseClock(const Settings& settings) const;
    bool serveClock(GstClock* clock, const Settings& settings);
    kit::SharedMemory chooseMemory(const Settings& settings, GstBuffer* first) const;
    GstFlowReturn
    open(const Settings& settings, const Announcement& announcement, GstBuffer* first);
    kit::Status announceFormat(bool isOpen);
    // Makes the stream ready for a buffer. Called with the preroll lock held.
    GstFlowReturn prepare(GstBuffer* buffer);
    GstFlowReturn openOrAdapt(GstBuffer* buffer);
    GstFlowReturn waitForReceiver();
    void onReceivers(std::size_t count);
    void dropProducer();
    template <typename Send>
    GstFlowReturn sendWhenPossible(GstBuffer* buffer, Send send);
    GstFlowReturn renderPcm(GstBuffer* buffer);
    GstFlowReturn sendPcm(GstBuffer* buffer, const ByteView& data);
    GstFlowReturn sendMedia(GstBuffer* buffer);
    std::optional<ByteView>
    makePacket(GstBuffer* buffer, const kit::MediaHead& head, kit::FrameMemory& copy) const;
    std::optional<std::int64_t> getRunningTime(GstClockTime time) const;
    TimeValue makeTimestamp(std::optional<std::int64_t> runningTime) const;
    TimeValue findEarliestTime(std::optional<TimeValue> timestamp) const;
    void waitForTurn(TimeValue earliest);

    GstBaseSink* const m_element;
    ProvidedClock m_providedClock;
    FrameAllocator m_allocator;

    // Streaming thread, or state changes while there is none.
    std::optional<SinkFormat> m_format;
    std::optional<SinkFormat> m_announcedFormat;
    // Of media. The last one is in use; if the producer was interrupted, the previous one.
    std::vector<std::unique_ptr<kit::PlainPayloader>> m_payloaders;
    Announcement m_announcement;
    ObjectPtr<GstNetTimeProvider> m_provider;
    PipelineClock m_clock; // that the announcement was chosen for
    bool m_joined = false;
    bool m_isReopened = false; // since a receiver joined it
    std::size_t m_numReceivers = 0;
    kit::Pace m_pace; // of PCM, after the first frame
    LastMedia m_lastMedia;
    std::uint64_t m_numMediaFrames = 0;

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
    m_isReopened = false;
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

// Refuses memory that cannot be read as system memory. Raw audio travels as PCM if it can: every
// receiver plays that.
GstCaps* Sink::getCaps(GstCaps* filter)
{
    if (filter == nullptr || gst_caps_is_any(filter) != FALSE)
        return gst_caps_new_any();
    GstCaps* const caps = selectPcm(filter).release();
    const bool hasPcm = gst_caps_is_empty(caps) == FALSE;
    for (guint i = 0; i < gst_caps_get_size(filter); ++i)
    {
        const GstStructure* const fields = gst_caps_get_structure(filter, i);
        const bool isOtherAudio = hasPcm && gst_structure_has_name(fields, "audio/x-raw") != FALSE;
        if (isInSystemMemory(filter, i) && !isOtherAudio)
            gst_caps_append_structure(caps, gst_structure_copy(fields));
    }
    return caps;
}

bool Sink::setCaps(GstCaps* caps)
{
    const std::string text = toText(caps);
    GST_INFO_OBJECT(m_element, "caps %s", text.c_str());
    if (const auto pcm = toStreamFormat(caps))
    {
        m_format = *pcm;
        m_pace.changeRate(pcm->rate);
        gst_base_sink_set_drop_out_of_segment(m_element, TRUE);
        return true;
    }
    auto media = MediaFormat::parse(text);
    if (!media)
    {
        GST_ELEMENT_ERROR(
            m_element, STREAM, FORMAT,
            ("The stream cannot be sent: its caps are not supported%s.",
             text.starts_with("audio/x-raw") ? "; raw audio has 1 to 63 channels" : ""),
            ("%s", text.c_str()));
        return false;
    }
    // Encoded media before the segment is needed to decode what follows.
    gst_base_sink_set_drop_out_of_segment(m_element, static_cast<gboolean>(media->isRaw()));
    m_format = std::move(*media);
    m_pace.begin(0);
    return true;
}

bool Sink::proposeAllocation(GstQuery* query) const
{
    GstCaps* caps = nullptr;
    gst_query_parse_allocation(query, &caps, nullptr);
    const bool isPcm = caps == nullptr ? !isMedia() : toStreamFormat(caps).has_value();
    if (getSettings().getCarriage(!isPcm) == kit::Carriage::Inline)
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
    // Closing would wait for the end of the last frame, which may be a text of an hour.
    if (!m_payloaders.empty())
        m_producer->stop();
    m_producer->close();
    m_payloaders.clear();
    m_numReceivers = 0;
    m_numMediaFrames = 0;
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

// The first encoded picture does not limit the size: later ones may be far larger.
kit::SharedMemory Sink::chooseMemory(const Settings& settings, GstBuffer* first) const
{
    kit::SharedMemory memory;
    memory.carriage = settings.getCarriage(isMedia());
    const std::size_t size = gst_buffer_get_size(first);
    if (!isMedia())
    {
        const auto& pcm = std::get<kit::StreamFormat>(*m_format);
        memory.frameDuration =
            std::chrono::nanoseconds(pcm.toNanoseconds(size / pcm.getBytesPerSample()));
        return memory;
    }
    const auto& media = std::get<MediaFormat>(*m_format);
    memory.frameBytes = kit::MediaHeadBytes + std::max(size, media.estimateSize());
    memory.frameDuration = std::chrono::nanoseconds(media.getDuration(size));
    memory.span = MediaSpan;
    memory.maxBytes = MaxMediaMemory;
    return memory;
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
    options.sharedMemory = chooseMemory(settings, first);
    if (settings.realtimePriority > 0)
        options.realTime = {kit::RealTimeUse::Try, settings.realtimePriority};
    options.onNotice = [this](const std::string& notice)
    { GST_ELEMENT_WARNING(m_element, RESOURCE, SETTINGS, ("%s", notice.c_str()), (nullptr)); };
    if (isMedia())
        options.onReceivers = [this](std::size_t count) { onReceivers(count); };
    {
        const std::lock_guard lock(m_mutex);
        m_producer = std::make_unique<kit::Producer>(std::move(options));
        m_producer->interrupt(m_interrupted);
    }
    if (const kit::Status status = announceFormat(false); !status)
    {
        dropProducer();
        return fail(status);
    }

    m_allocator.setProducer(m_producer.get(), isMedia() ? kit::MediaHeadBytes : 0);
    m_announcement = announcement;
    GST_INFO_OBJECT(
        m_element, "\"%s\" is open on %s", m_producer->getName().c_str(),
        toString(announcement.protocol));
    return GST_FLOW_OK;
}

// Opens the stream with the current format, or changes an open stream to it.
kit::Status Sink::announceFormat(bool isOpen)
{
    m_announcedFormat.reset(); // unknown to receivers if it is interrupted
    const auto use = [&](auto& format)
    { return isOpen ? m_producer->setFormat(format) : m_producer->open(format); };
    kit::Status status;
    if (const auto* const media = std::get_if<MediaFormat>(&*m_format))
    {
        const std::string& text = media->getText();
        m_payloaders.push_back(std::make_unique<kit::PlainPayloader>(
            kit::MediaFourcc, Buffer(text.begin(), text.end())));
        status = use(*m_payloaders.back());
        if (status)
            m_payloaders.erase(m_payloaders.begin(), m_payloaders.end() - 1);
    }
    else
        status = use(std::get<kit::StreamFormat>(*m_format));
    if (status)
        m_announcedFormat = m_format;
    return status;
}

// The stream is opened again if its timestamps are no longer on the announced clock, or if it
// changes between PCM and other media, whose use of shared memory may differ.
GstFlowReturn Sink::openOrAdapt(GstBuffer* buffer)
{
    if (!m_format)
        return fail("its buffers have no caps; set them with a capsfilter");
    const Settings settings = getSettings();
    m_clock.set(findClock(GST_ELEMENT(m_element)));
    const auto announcement = chooseClock(settings);
    if (!announcement)
        return fail("a network clock is wanted, but the pipeline has none; set \"clock-address\" "
                    "and \"clock-port\", or \"serve-clock\"");
    if (m_producer && (m_announcement != *announcement || isMedia() == m_payloaders.empty()))
    {
        GST_INFO_OBJECT(m_element, "opening again, with the current clock and media");
        m_isReopened = m_isReopened || m_joined;
        dropProducer();
    }
    if (!m_producer)
        return open(settings, *announcement, buffer);
    if (m_announcedFormat == m_format)
        return GST_FLOW_OK;
    const kit::Status status = announceFormat(true);
    return status ? GST_FLOW_OK : fail(status);
}

GstFlowReturn Sink::waitForReceiver()
{
    if (m_joined)
        return GST_FLOW_OK;
    if (getSettings().waitForConnection)
    {
        const auto timeout = m_isReopened ? RejoinTimeout : std::chrono::milliseconds(-1);
        const kit::Status status = m_producer->waitForReceivers(1, timeout);
        if (!status && status.getCode() != kit::ErrorCode::TimedOut)
            return fail(status);
    }
    m_joined = true;
    return GST_FLOW_OK;
}

// No request for the receiver that ends the wait before the first frame: it gets that frame.
void Sink::onReceivers(std::size_t count)
{
    const bool isJoin = count > std::exchange(m_numReceivers, count);
    if (isJoin && m_joined)
        gst_pad_push_event(
            GST_BASE_SINK_PAD(m_element),
            gst_video_event_new_upstream_force_key_unit(GST_CLOCK_TIME_NONE, TRUE, 0));
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

// Before GstBaseSink gets the buffer: it takes a flush during preroll for a failure, aborts the
// change of state, and would never deactivate the pad.
GstFlowReturn Sink::preroll(GstBuffer* buffer)
{
    GST_BASE_SINK_PREROLL_LOCK(m_element);
    const GstFlowReturn flow = m_element->need_preroll != FALSE ? prepare(buffer) : GST_FLOW_OK;
    GST_BASE_SINK_PREROLL_UNLOCK(m_element);
    if (flow != GST_FLOW_OK && flow != GST_FLOW_FLUSHING)
        gst_element_abort_state(GST_ELEMENT(m_element));
    return flow;
}

// Negative before the beginning of the segment, which is usual for decoding times.
std::optional<std::int64_t> Sink::getRunningTime(GstClockTime time) const
{
    const GstSegment& segment = m_element->segment;
    if (segment.format != GST_FORMAT_TIME || !GST_CLOCK_TIME_IS_VALID(time))
        return std::nullopt;
    guint64 distance = 0;
    const gint sign = gst_segment_to_running_time_full(&segment, GST_FORMAT_TIME, time, &distance);
    return sign == 0 ? std::nullopt : std::optional(sign * static_cast<std::int64_t>(distance));
}

TimeValue Sink::makeTimestamp(std::optional<std::int64_t> runningTime) const
{
    GstClock* const clock = m_clock.get();
    const bool isSystemTime = m_announcement.protocol == TimeSyncProtocol::MonotonicSystemClock;
    if (!runningTime)
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
    return gst_element_get_base_time(GST_ELEMENT(m_element)) +
           gst_base_sink_get_latency(m_element) + static_cast<TimeValue>(*runningTime + shift);
}

// Receivers would lose a part of a burst. A pipeline that catches up after a delay therefore sends
// at most at twice the speed. A condition variable would enter the kernel even for a time that has
// passed.
void Sink::waitForTurn(TimeValue earliest)
{
    const std::chrono::steady_clock::time_point due{std::chrono::nanoseconds(earliest)};
    if (std::chrono::steady_clock::now() >= due)
        return;
    std::unique_lock lock(m_mutex);
    m_condition.wait_until(lock, due, [this] { return m_interrupted; });
}

// Media are sent at twice the speed at most, too. Durations are not those of the pace: subtitles
// overlap, and the parts of a picture have that of the whole.
TimeValue Sink::findEarliestTime(std::optional<TimeValue> timestamp) const
{
    const TimeValue step =
        timestamp ? *timestamp - std::min(*timestamp, m_lastMedia.timestamp) : m_lastMedia.duration;
    return m_lastMedia.sent + std::clamp(step / 2, MinSpacingNs, MaxSpacingNs);
}

GstFlowReturn Sink::sendPcm(GstBuffer* buffer, const ByteView& data)
{
    // A buffer outside of the segment has no time.
    const GstSegment& segment = m_element->segment;
    const bool isInSegment =
        segment.format == GST_FORMAT_TIME && GST_BUFFER_PTS_IS_VALID(buffer) &&
        gst_segment_to_running_time(&segment, GST_FORMAT_TIME, GST_BUFFER_PTS(buffer)) !=
            GST_CLOCK_TIME_NONE;
    const TimeValue timestamp =
        makeTimestamp(isInSegment ? getRunningTime(GST_BUFFER_PTS(buffer)) : std::nullopt);
    waitForTurn(m_pace.getEarliestTime());
    if (timestamp != m_pace.getTimestamp())
        m_pace.begin(timestamp);
    const std::size_t samples =
        data.size() / std::get<kit::StreamFormat>(*m_format).getBytesPerSample();
    const TimeValue duration = GST_BUFFER_DURATION_IS_VALID(buffer) ? GST_BUFFER_DURATION(buffer)
                                                                    : m_pace.getDuration(samples);
    if (const kit::Status status = m_producer->send(timestamp, duration, data); !status)
        return fail(status);
    m_pace.advance(samples, miscUtils::getMonotonicSysclockTime());
    return GST_FLOW_OK;
}

// Returns head and data: in place if the buffer is in the sink's own memory and was not sent
// before, otherwise as a copy. Not set if it cannot be read.
std::optional<ByteView>
Sink::makePacket(GstBuffer* buffer, const kit::MediaHead& head, kit::FrameMemory& copy) const
{
    const auto& format = std::get<MediaFormat>(*m_format);
    const std::size_t size = kit::MediaHeadBytes + format.getPackedSize(buffer);
    if (format.isPacked(buffer))
    {
        std::uint8_t* const room = FrameAllocator::sealWithHead(buffer, kit::MediaHeadBytes);
        if (room != nullptr)
        {
            kit::writeMediaHead(head, room);
            return ByteView(room, size);
        }
    }
    copy = m_producer->acquire(size);
    kit::writeMediaHead(head, copy.data.get());
    if (!format.pack(buffer, copy.data.get() + kit::MediaHeadBytes))
        return std::nullopt;
    return copy;
}

// A frame is due at its decoding time, which increases from frame to frame.
GstFlowReturn Sink::sendMedia(GstBuffer* buffer)
{
    if (gst_buffer_get_size(buffer) == 0)
        return GST_FLOW_OK; // receivers would take it for a loss
    const auto decoding = getRunningTime(GST_BUFFER_DTS_OR_PTS(buffer));
    const auto presentation = getRunningTime(GST_BUFFER_PTS(buffer));
    const TimeValue timestamp = makeTimestamp(decoding);
    waitForTurn(findEarliestTime(decoding ? std::optional(timestamp) : std::nullopt));
    kit::MediaHead head = makeHead(buffer);
    head.number = m_numMediaFrames + 1;
    if (GST_BUFFER_DTS_IS_VALID(buffer))
        head.flags |= kit::MediaHead::Decoding;
    if (decoding && presentation)
        head.ptsOffsetNs = *presentation - *decoding;
    kit::FrameMemory copy;
    const auto packet = makePacket(buffer, head, copy);
    if (!packet)
    {
        GST_ELEMENT_ERROR(m_element, RESOURCE, READ, (nullptr), ("A buffer cannot be read."));
        return GST_FLOW_ERROR;
    }
    const TimeValue duration =
        GST_BUFFER_DURATION_IS_VALID(buffer)
            ? GST_BUFFER_DURATION(buffer)
            : std::get<MediaFormat>(*m_format).getDuration(packet->size() - kit::MediaHeadBytes);
    if (const kit::Status status = m_producer->send(timestamp, duration, *packet); !status)
        return fail(status);
    m_numMediaFrames = head.number;
    m_lastMedia = {miscUtils::getMonotonicSysclockTime(), timestamp, duration};
    return GST_FLOW_OK;
}

/// @param send  sends the buffer; called again after an interruption
template <typename Send>
GstFlowReturn Sink::sendWhenPossible(GstBuffer* buffer, Send send)
{
    for (;;)
    {
        GstFlowReturn flow = prepare(buffer);
        if (flow != GST_FLOW_OK)
            return flow;
        if (m_element->need_preroll != FALSE)
        {
            // Paused meanwhile: the state change is completed here, and may change the clock.
            flow = gst_base_sink_do_preroll(m_element, GST_MINI_OBJECT_CAST(buffer));
            if (flow != GST_FLOW_OK)
                return flow;
            continue;
        }
        flow = send();
        // After a pause the same buffer is sent again; after a flush it is dropped.
        if (flow != GST_FLOW_FLUSHING || m_element->flushing != FALSE)
            return flow;
    }
}

GstFlowReturn Sink::renderPcm(GstBuffer* buffer)
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
    const GstFlowReturn flow = sendWhenPossible(buffer, [&] { return sendPcm(buffer, data); });
    gst_buffer_unmap(buffer, &map);
    return flow;
}

GstFlowReturn Sink::render(GstBuffer* buffer)
{
    return isMedia() ? sendWhenPossible(buffer, [&] { return sendMedia(buffer); })
                     : renderPcm(buffer);
}

// From here on: the element as GObject knows it.

using Type = ElementType<Sink, GstBaseSink>;

GstFlowReturn chain(GstPad* pad, GstObject* parent, GstBuffer* buffer)
{
    const GstFlowReturn flow = Type::of(parent).preroll(buffer);
    if (flow == GST_FLOW_OK)
        return Type::of(parent).baseChain(pad, parent, buffer);
    gst_buffer_unref(buffer);
    return flow;
}

GstFlowReturn chainList(GstPad* pad, GstObject* parent, GstBufferList* list)
{
    const GstFlowReturn flow = gst_buffer_list_length(list) == 0
                                   ? GST_FLOW_OK
                                   : Type::of(parent).preroll(gst_buffer_list_get(list, 0));
    if (flow == GST_FLOW_OK)
        return Type::of(parent).baseChainList(pad, parent, list);
    gst_buffer_list_unref(list);
    return flow;
}

void prerollBeforeChain(GstPad* pad)
{
    gst_pad_set_chain_function(pad, chain);
    gst_pad_set_chain_list_function(pad, chainList);
}

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
         "always if the first frame has at least 8192 bytes, otherwise never", "auto"},
        {SharedForMedia, "never for PCM, so that every receiver can play it; otherwise auto",
         "media"},
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
        "Put frames into shared memory, at most 64 MiB, or 256 MiB for media other than PCM: large "
        "frames then arrive sooner");
    properties.addStatistics("Frames and bytes sent, receivers, sequences");
}

gboolean answerQuery(GstBaseSink* element, GstQuery* query)
{
    if (GST_QUERY_TYPE(query) != GST_QUERY_ACCEPT_CAPS)
        return GST_BASE_SINK_CLASS(Type::getParentClass())->query(element, query);
    GstCaps* caps = nullptr;
    gst_query_parse_accept_caps(query, &caps);
    gst_query_set_accept_caps_result(query, static_cast<gboolean>(isInSystemMemory(caps, 0)));
    return TRUE;
}

} // unnamed namespace

// A flat table.
void Sink::initClass(gpointer elementClass)
{
    GST_DEBUG_CATEGORY_INIT(vlxsink_debug, "vlxsink", 0, "Vellox sink");
    describeElement(
        elementClass, "Vellox sink", "Sink/Audio/Video",
        "Sends timestamped media to any number of processes of this machine", GST_PAD_SINK);
    installProperties(elementClass);

    auto* const sinkClass = GST_BASE_SINK_CLASS(elementClass);
    sinkClass->get_caps = [](GstBaseSink*, GstCaps* filter) { return Sink::getCaps(filter); };
    sinkClass->set_caps = [](GstBaseSink* self, GstCaps* caps) -> gboolean
    { return Type::of(self).setCaps(caps); };
    sinkClass->query = answerQuery;
    sinkClass->propose_allocation = [](GstBaseSink* self, GstQuery* query) -> gboolean
    { return Type::of(self).proposeAllocation(query); };
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
