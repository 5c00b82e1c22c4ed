#pragma once

/// The receiving end of a stream, which recovers by itself.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>

#include <sys/types.h>

#include <vlx/VlxPayload.hpp>
#include <vlx/VlxReceiver.hpp>
#include <vlx/VlxTypes.hpp>
#include <vlxkit/AgeHistogram.hpp>
#include <vlxkit/RealTime.hpp>
#include <vlxkit/Status.hpp>
#include <vlxkit/StreamFormat.hpp>

namespace vlx::kit
{

/// What may wait in a consumer's queue. Of the frames beyond any of these limits the oldest ones
/// are dropped; the newest frame always stays.
struct QueueLimits
{
    /// Time between the arrivals of the oldest frame and the newest; zero: no limit.
    std::chrono::nanoseconds time = std::chrono::seconds(1);
    std::size_t bytes = 64 << 20; ///< of media data; 0: no limit
    std::size_t frames = 10'000;  ///< 0: no limit
};

/// Options of a Consumer.
struct ConsumerOptions
{
    /// Name of the stream, 1 to 107 bytes.
    std::string name;
    /// Directory where senders and receivers of this machine meet; empty: "TMPDIR" as it is in
    /// start(), or "/tmp/vlx", which is created if it is missing. Any other directory must exist.
    std::string baseDirectory = {};
    /// Time without a frame after which a joined stream is joined again; zero: never. The time
    /// doubles with each attempt that brought no frame, up to sixteenfold.
    std::chrono::nanoseconds stallTimeout = std::chrono::seconds(2);
    /// Scheduling of the stream's threads.
    RealTime realTime = {};
    /// User that the sender's process must run as, as the kernel recorded it when that process
    /// began to listen; not set: any. A sender of another user is reported as NotASender and waited
    /// out. The overflow user id (65534, see /proc/sys/kernel/overflowuid) never matches: in a user
    /// namespace it stands for every user from outside.
    std::optional<uid_t> senderUser = {};
    /// Receives informational messages, such as restrictions, one line each, on the thread that
    /// calls start(). Not set: they go to the logger "Vellox.Kit" as WARN.
    std::function<void(const std::string&)> onNotice = {};
    /// For a consumer without a frame callback, whose frames wait until they are read.
    QueueLimits queue = {};
    /// Whether to receive codecs without a depayloader, too: each frame is the payload as it was
    /// sent, and CodecFormat has the codec's FourCC and header. Otherwise they are reported as
    /// CannotPlay. A sender is then asked for its codec before it is first joined. A stream that
    /// changes to a new codec is Lost and joined again; at most 64 codecs in all are received.
    bool anyCodec = false;
};

/// What is known about a frame.
struct FrameInfo
{
    TimeValue timestamp = 0; ///< as the sender gave it; nanoseconds by convention
    TimeValue duration = 0;  ///< same unit
    /// Nanoseconds between the end of the frame before and this one: positive if media is missing,
    /// negative if frames overlap, 0 within the jitter of a millisecond or half a frame. Also
    /// across two connections; 0 for the first frame of all, and after a change of the stream's
    /// clock.
    std::int64_t gapNs = 0;
    /// First frame of a connection, of a format or of a codec header, or after a pause: a decoder
    /// starts afresh. A sequence that only repeats what is known is none of these.
    bool isFirst = false;
    TimeValue arrival = 0; ///< nanoseconds of CLOCK_MONOTONIC
    /// Clock that the timestamp stands on.
    Receiver::StreamClockType clock = Receiver::StreamClockType::Undetermined;
    /// That clock less CLOCK_MONOTONIC, nanoseconds, measured as the frame arrived: 0 for the
    /// system's clock; not set for a stream without a clock, and until a network clock is
    /// synchronised.
    std::optional<std::int64_t> clockOffsetNs = {};

    /// @return the timestamp as a time of CLOCK_MONOTONIC; not set while that cannot be told
    std::optional<TimeValue> getMonotonicTime() const
    {
        if (!clockOffsetNs)
            return std::nullopt;
        return timestamp - static_cast<TimeValue>(*clockOffsetNs);
    }
};

/// One frame, as the frame callback gets it.
struct Frame : FrameInfo
{
    const Buffer& data; ///< valid during the callback only: copy what you keep
};

class FramePool;

/// One frame from a consumer's queue, which owns its data. It can be moved and kept, also longer
/// than the consumer lives. Destroy it when it is done: its memory serves a later frame, so that
/// receiving PCM allocates nothing.
///
/// @thread one at a time
struct ReceivedFrame : FrameInfo
{
    Buffer data; ///< may be taken by std::move()
    /// Frames that were dropped directly before this one since the queue was full. What they held
    /// counts as a part of gapNs.
    std::uint64_t numDropped = 0;

    /// A frame without data.
    VLX_API ReceivedFrame();
    /// For the consumer.
    VLX_API ReceivedFrame(const FrameInfo& info, Buffer bytes, std::shared_ptr<FramePool> pool);
    /// The other one has no data afterwards.
    VLX_API ReceivedFrame(ReceivedFrame&& other) noexcept;
    /// The other one has the data that this one had.
    VLX_API ReceivedFrame& operator=(ReceivedFrame&& other) noexcept;
    /// Gives the memory back.
    VLX_API ~ReceivedFrame();

private:
    std::shared_ptr<FramePool> m_pool;
};

/// Codec of the frames that follow, if it is not PCM.
struct CodecFormat
{
    std::uint32_t fourcc = 0; ///< code of the codec, four characters, lowest byte first
    Buffer header;            ///< as the sender announced it

    /// Every field.
    bool operator==(const CodecFormat&) const = default;
};

/// A change of the connection, or the reason why there is no connection.
struct ConsumerEvent
{
    /// What happened.
    enum class Kind
    {
        /// A sender was joined; the format and frames follow.
        Joined,
        /// The connection has ended: the sender closed it, it failed, or the consumer left, because
        /// of stop() for instance.
        Lost,
        /// The consumer left a connection that brought no frames for the stall timeout, or whose
        /// frames belong to a sequence that was not announced to it, and joins again.
        Stalled,
        /// No depayloader for the stream's codec is registered, or its depayloader rejects the
        /// header, or the PCM format is beyond StreamFormat::isSupported(). This kind and all that
        /// follow: reported once, until something else happens, and tried again every two seconds.
        CannotPlay,
        /// This user may not write to the sender's socket file, and would get no frame.
        NotPermitted,
        /// The process that holds the name is not a sender that can be trusted: it ends every
        /// connection before it sends a frame, announces an invalid main channel, or runs as
        /// another user than ConsumerOptions::senderUser. Reported only after several failed
        /// checks.
        NotASender,
        /// The receiver could not go on: the process has no descriptor left, for instance, or in
        /// Pipeline another receiver has joined the stream. Tried again ever more seldom, up to
        /// every 10 seconds, since each attempt in Pipeline costs memory inside nanomsg (736
        /// bytes).
        Failed,
    };

    Kind kind = Kind::Joined; ///< what happened
    TimeValue time = 0;       ///< nanoseconds of CLOCK_MONOTONIC
    /// One line for a user: what happened, why, and what to do where something can be done. For
    /// NotPermitted it names path and mode of the socket file and the sender's --socket-mode.
    std::string text;
    std::uint32_t fourcc = 0; ///< CannotPlay: the stream's codec
};

/// @return such as "joined"; a static string
VLX_API const char* toString(ConsumerEvent::Kind kind);

/// What Consumer::read() returns: a format or codec, before the first frame of each connection and
/// at each change; a frame; or an event.
using ConsumerItem = std::variant<StreamFormat, CodecFormat, ReceivedFrame, ConsumerEvent>;

/// The clock of a consumer's present connection.
struct ConsumerClock
{
    /// Undetermined without a connection.
    Receiver::StreamClockType type = Receiver::StreamClockType::Undetermined;
    std::string address = {}; ///< of a network clock's provider, as the sender announces it
    std::uint16_t port = 0;   ///< of the same
    /// Always for the system's clock; once synchronised for a network's.
    bool isSynchronized = false;
    /// The clock less CLOCK_MONOTONIC, nanoseconds; not set while it is not known.
    std::optional<std::int64_t> offsetNs = {};
};

/// Callbacks of a Consumer. All are optional: without onFrame the consumer puts everything into a
/// queue for Consumer::read(), and calls the others all the same. No lock is held during a call,
/// and no two calls overlap. Callbacks must not throw, nor start, stop or destroy the consumer;
/// they may call requestStop(). A callback that takes long makes this consumer lose frames, and no
/// other.
struct ConsumerCallbacks
{
    /// Receives each frame, on the receiving thread.
    std::function<void(const Frame&)> onFrame = {};
    /// Receives the format of the PCM frames that follow: before the first frame of each
    /// connection, and at each change. On the receiving thread.
    std::function<void(const StreamFormat&)> onFormat = {};
    /// The same for every other codec. Its depayloader, if there is one, has just accepted the
    /// header.
    std::function<void(const CodecFormat&)> onCodec = {};
    /// Receives each event, on the receiving thread or on the consumer's own.
    ///
    /// Each Joined is followed by exactly one Lost or Stalled before the next Joined, and before
    /// stop() returns; neither comes without a Joined before it. Frames, formats and codecs come
    /// between the two only.
    std::function<void(const ConsumerEvent&)> onEvent = {};
};

/// Counts and state of a consumer since its construction.
struct ConsumerStatistics
{
    /// Connecting as well while backing off from an unplayable sender; Idle only before start() and
    /// after the stop.
    Receiver::State state = Receiver::State::Idle;
    std::uint64_t frames = 0;      ///< received
    std::uint64_t bytes = 0;       ///< of media data
    std::uint64_t sequences = 0;   ///< announced
    std::uint64_t gaps = 0;        ///< positive gaps between frames, within and across connections
    TimeValue gapNs = 0;           ///< their sum
    std::uint64_t overlaps = 0;    ///< negative gaps
    std::uint64_t connections = 0; ///< that brought a frame
    std::uint64_t reconnects = 0;  ///< connections after the first
    std::uint64_t stalls = 0;      ///< connections given up without frames
    std::uint64_t dropped = 0;     ///< frames that were too many for the queue
    /// From start(), or from the loss of the connection before, to the first frame; of the present
    /// or last connection, nanoseconds; 0 before.
    TimeValue joinNs = 0;
    StreamFormat format = {}; ///< of the present or last PCM sequence
    /// Of the present connection.
    Receiver::StreamClockType clock = Receiver::StreamClockType::Undetermined;
    /// The stream's clock is known: always for the system's, once synchronised for a network's.
    bool clockSynchronized = false;
    /// The stream's clock less CLOCK_MONOTONIC, nanoseconds; 0 while it is not known.
    std::int64_t clockOffsetNs = 0;
};

/// Receives one stream for as long as it is wanted: waits for the sender, joins it, joins it again
/// after a loss or a stall, backs off from senders that cannot be played, and stops promptly.
///
/// Threads: the library's two, and one that supervises them, "vlx-keeper". PCM is built in.
///
/// Every connection is checked before it is used: the announced main channel must be a sender's own
/// file in the sender's own directory, below a base directory that no third user controls, and of
/// the user that the options name. A join takes one connection. Only a sender that was refused, or
/// whose last connection ended before a sequence was announced, is asked what it sends before it is
/// joined again, for a clear message.
///
/// A receiver that has missed the announcement of a sequence, and would refuse every frame, joins
/// again after 20 ms, at most once a second; that is reported as Stalled.
///
/// An unresponsive sender, a stopped one for instance, keeps one connection waiting, without limit
/// and without an event. A sender whose backlog is full is asked ten times a second, which costs it
/// nothing.
///
/// A misuse stops the process with an assertion that says what to do: start(), stop() or
/// destruction inside a callback of this consumer, and two of these calls at once.
///
/// Everything can be had in two ways. With a frame callback the receiving thread calls back, at
/// once. Without one it puts formats, frames and events into a queue, in order, and never waits for
/// who reads them: while (auto item = consumer.read()) ... An event loop watches getDescriptor()
/// and reads with a timeout of zero until nothing is left.
///
/// Throws only what the standard library throws (no memory, no thread).
class Consumer
{
public:
    /// A consumer that does nothing yet.
    VLX_API explicit Consumer(ConsumerOptions options, ConsumerCallbacks callbacks = {});

    /// Calls stop().
    VLX_API ~Consumer();

    Consumer(const Consumer&) = delete;
    Consumer& operator=(const Consumer&) = delete;

    /// Takes over a consumer, started or not. The one that was moved from can only be destroyed or
    /// assigned to; assignment stops the former consumer. Not to itself, nor beside another call.
    VLX_API Consumer(Consumer&& other) noexcept;
    VLX_API Consumer& operator=(Consumer&& other) noexcept; ///< see there

    /// Registers a codec beside PCM, or in its place. Before start().
    ///
    /// Headers are tried on it before its stream is joined, too, and taken back with reset(): on
    /// the consumer's own thread, while nothing is received. Within a connection it is given a
    /// header only when that differs from the one before, so that an announcement which repeats it
    /// leaves a decoder in step.
    ///
    /// @param depayloader  not owned; must outlive the consumer
    VLX_API void addDepayloader(Depayloader& depayloader);

    /// Starts to receive; returns at once, with or without a sender. On a consumer that was asked
    /// to stop it completes that stop first.
    ///
    /// @return NameInvalid; NoDirectory, DirectoryNotTrusted or
    ///         NotPermitted for the base directory; NotPermitted also if real-time scheduling is
    ///         required and not available; OutOfResources
    /// @thread one at a time with stop(), never inside a callback
    VLX_API Status start();

    /// Stops. No callback runs any more once it has returned, normally within milliseconds; a
    /// joined stream has been reported as Lost by then. Does nothing on a consumer that is not
    /// started; it may be started again.
    ///
    /// It takes up to 5 seconds if the base directory is not writable or was removed, or if the
    /// user has no inotify instance left; up to 400 ms within the first half second of an attempt
    /// to join a sender whose backlog is full.
    ///
    /// In a forked child the copy of a started consumer only closes its descriptors; the parent's
    /// goes on. The same holds for the destruction.
    ///
    /// @thread one at a time with start(), never inside a callback: call requestStop() there
    VLX_API void stop();

    /// Asks the consumer to stop, and returns at once. Callbacks may still run; a joined stream is
    /// reported as Lost, and then the state is Idle. stop() waits for that. Does nothing on a
    /// consumer that is not started.
    ///
    /// @thread any, callbacks included
    VLX_API void requestStop();

    /// Takes what has come next from the queue, in the order in which it came. When the queue is
    /// full, the oldest frame is dropped and counted, never an event: events stay until they are
    /// read, some hundred bytes each. Of formats without a frame between them the newest one stays.
    /// The events keep to what ConsumerCallbacks::onEvent
    /// says.
    ///
    /// @param timeout  how long to wait; zero: only look; negative: without limit
    /// @return not set if nothing has come in time; at once if the consumer is not started, or has
    ///         stopped, and everything was read. requestStop() ends the wait as soon as the stop is
    ///         complete, after the last event; always not set with a frame callback
    /// @thread any; not during the destruction
    VLX_API std::optional<ConsumerItem>
    read(std::chrono::nanoseconds timeout = std::chrono::nanoseconds(-1));

    /// Frees the readers that wait: read() returns what there is, and does not wait, until this is
    /// called with false. For a program that pauses or stops its readers.
    ///
    /// @thread any
    VLX_API void interrupt(bool on);

    /// Pauses the stream, or resumes it. During a pause frames are discarded without being counted
    /// as dropped, also those that wait already; formats and events stay. The next frame has
    /// isFirst set.
    ///
    /// A consumer that is paused when it starts connects to a sender, but joins it only when it is
    /// resumed. So the sender goes on waiting for its first receiver, and waitUntilJoined() and
    /// getClock() already work as if it was joined.
    ///
    /// @param on  whether to pause; not paused by default
    /// @thread one at a time, and not beside start()
    VLX_API void pause(bool on);

    /// @return a descriptor for poll() and event loops that is readable as long as something waits
    ///         to be read; it stays the consumer's. Reading and closing it is forbidden; a stop
    ///         does not make it readable. -1 if no descriptor is left, or there is a frame callback
    /// @thread any
    VLX_API int getDescriptor();

    /// Changes ConsumerOptions::queue. Frames beyond the new limits are dropped at once.
    /// @thread any
    VLX_API void setQueueLimits(const QueueLimits& limits);

    /// Waits until a sender is joined.
    ///
    /// @param timeout  zero: only look; negative: without limit
    /// @return whether one is joined now; false at once if the consumer is not started, or stops
    /// @thread any, but not inside a callback
    VLX_API bool waitUntilJoined(std::chrono::nanoseconds timeout) const;

    /// @return the clock of the present connection, with its provider
    /// @thread any, callbacks included
    VLX_API ConsumerClock getClock() const;

    /// @return nanoseconds on the stream's clock; 0 while it is not known
    /// @thread any, callbacks included
    VLX_API TimeValue getStreamTime() const;

    /// Returns the counts so far.
    /// @thread any, callbacks included
    VLX_API ConsumerStatistics getStatistics() const;

    /// Returns the ages of all frames on arrival, against the stream's clock: without those of a
    /// stream without a clock, and those that came before a network clock was synchronised. A copy
    /// of 15 KB, during which a frame may have to wait: ask now and then, not per frame.
    /// @thread any, callbacks included
    VLX_API AgeHistogram getAges() const;

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace vlx::kit
