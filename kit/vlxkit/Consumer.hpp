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

/// Limits of a consumer's queue. Beyond any of them the oldest frames are dropped; the newest frame
/// always stays.
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
    /// Time without a frame after which a joined stream is joined again; zero: never. It counts
    /// from the end of the last frame's duration, which may be at most 60 s. The time doubles with
    /// each attempt that brought no frame, up to sixteenfold.
    std::chrono::nanoseconds stallTimeout = std::chrono::seconds(2);
    /// Scheduling of the stream's threads.
    RealTime realTime = {};
    /// User that the sender's process must run as, recorded by the kernel when that process began
    /// to listen; not set: any user. A sender of another user is reported as NotASender, and the
    /// consumer waits for the next one. The overflow user id (65534, see
    /// /proc/sys/kernel/overflowuid) never matches: in a user namespace it stands for every user
    /// from outside.
    std::optional<uid_t> senderUser = {};
    /// Refuses Pipeline senders, which accept only one receiver; reported as NotPermitted.
    bool pubSubOnly = false;
    /// Receives informational messages, such as restrictions, one line each, on the thread that
    /// calls start(). Not set: they go to the logger "Vellox.Kit" as WARN.
    std::function<void(const std::string&)> onNotice = {};
    /// Limits of the queue of a consumer without a frame callback.
    QueueLimits queue = {};
    /// Also receives codecs that have no depayloader: each frame is the payload as it was
    /// sent, and CodecFormat has the codec's FourCC and header. Otherwise they are reported as
    /// CannotPlay. A sender is then asked for its codec before it is first joined. A stream that
    /// changes to a new codec is Lost and joined again; at most 64 codecs in all are received.
    bool anyCodec = false;
};

/// Depayloader of a codec whose frames travel unchanged, the counterpart of PlainPayloader. It adds
/// no copy to frames in shared memory. Derive a class for each codec, to check its headers.
class PlainDepayloader : public Depayloader
{
public:
    using Depayloader::Depayloader;

    /// Returns the payload.
    Buffer unwrapFrame(const ByteView& payload) final
    {
        return {payload.begin(), payload.end()};
    }
};

/// Description of a frame.
struct FrameInfo
{
    TimeValue timestamp = 0; ///< as sent; nanoseconds by convention
    TimeValue duration = 0;  ///< same unit
    /// Nanoseconds from the end of the previous frame to this one: positive if media is missing,
    /// negative if the frames overlap, 0 within a jitter of 1 ms or half a frame, whichever is
    /// less. Also measured across connections; 0 for the very first frame, and after a change of
    /// the stream's clock.
    std::int64_t gapNs = 0;
    /// First frame of a connection, of a format or of a codec header, or after a pause: a decoder
    /// starts afresh. A repeated announcement does not set it.
    bool isFirst = false;
    TimeValue arrival = 0; ///< nanoseconds of CLOCK_MONOTONIC
    /// Clock of the timestamp.
    Receiver::StreamClockType clock = Receiver::StreamClockType::Undetermined;
    /// That clock minus CLOCK_MONOTONIC when the frame arrived, in nanoseconds: 0 for the system
    /// clock; not set for a stream without a clock, and until a network clock is synchronised.
    std::optional<std::int64_t> clockOffsetNs = {};

    /// @return the timestamp on CLOCK_MONOTONIC; not set if clockOffsetNs is not set
    std::optional<TimeValue> getMonotonicTime() const
    {
        if (!clockOffsetNs)
            return std::nullopt;
        return timestamp - static_cast<TimeValue>(*clockOffsetNs);
    }
};

/// One frame, as passed to the frame callback.
struct Frame : FrameInfo
{
    const Buffer& data; ///< valid during the callback only: copy what you keep
};

/// Codec of the frames that follow, if it is not PCM: what a decoder needs.
struct CodecFormat
{
    std::uint32_t fourcc = 0; ///< code of the codec, four characters, lowest byte first
    Buffer header;            ///< as the sender announced it

    /// Memberwise comparison.
    bool operator==(const CodecFormat&) const = default;
};

/// Format of PCM frames, or codec of other frames.
using FrameFormat = std::variant<StreamFormat, CodecFormat>;

class FramePool;

/// One frame from a consumer's queue, which owns its data. It can be moved and kept, also longer
/// than the consumer lives. Destroy it after use: its memory is used for a later frame, so that
/// receiving PCM allocates nothing.
///
/// @thread one at a time
struct ReceivedFrame : FrameInfo
{
    Buffer data; ///< may be taken by std::move()
    /// Frames dropped directly before this one because the queue was full. gapNs includes their
    /// media.
    std::uint64_t numDropped = 0;
    /// Format or codec of the frame. If several threads read in turn, another thread may have read
    /// the item that announced it. Set for every frame that read() returns.
    std::shared_ptr<const FrameFormat> format = {};

    /// A frame without data.
    VLX_API ReceivedFrame();
    /// Used by the consumer.
    VLX_API ReceivedFrame(const FrameInfo& info, Buffer bytes, std::shared_ptr<FramePool> pool);
    /// Leaves the other frame without data.
    VLX_API ReceivedFrame(ReceivedFrame&& other) noexcept;
    /// Swaps the data of the two frames.
    VLX_API ReceivedFrame& operator=(ReceivedFrame&& other) noexcept;
    /// Returns the memory for a later frame.
    VLX_API ~ReceivedFrame();

private:
    std::shared_ptr<FramePool> m_pool;
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
        /// The consumer joins again: no frame came within the stall timeout, it missed the
        /// announcement of a sequence, or rejoin() was called.
        Stalled,
        /// No depayloader for the stream's codec is registered, or its depayloader rejects the
        /// header, or the PCM format is beyond StreamFormat::isSupported(). This kind and
        /// the following are reported once in a row, and retried every two seconds.
        CannotPlay,
        /// This user may not write to the sender's socket file, and would get no frame; or the
        /// sender is in Pipeline and ConsumerOptions::pubSubOnly is set.
        NotPermitted,
        /// The process that holds the name is not a sender that can be trusted: it ends every
        /// connection before it sends a frame, announces an invalid main channel, or runs as
        /// another user than ConsumerOptions::senderUser. Reported only after several failed
        /// checks.
        NotASender,
        /// The receiver could not go on: the process has no descriptor left, for instance, or in
        /// Pipeline another receiver has joined the stream. Retries slow
        /// down to one every 10 seconds, since each in Pipeline costs 736 bytes inside nanomsg.
        Failed,
    };

    Kind kind = Kind::Joined; ///< what happened
    TimeValue time = 0;       ///< nanoseconds of CLOCK_MONOTONIC
    /// One line for a user: what happened, why, and the remedy, if there is one. For
    /// NotPermitted it names path and mode of the socket file and the sender's --socket-mode.
    std::string text;
    std::uint32_t fourcc = 0; ///< CannotPlay: the stream's codec
};

/// @return a static string such as "joined"
VLX_API const char* toString(ConsumerEvent::Kind kind);

/// What Consumer::read() returns: a format or codec, before the first frame of each connection and
/// at each change; a frame; or an event.
using ConsumerItem = std::variant<StreamFormat, CodecFormat, ReceivedFrame, ConsumerEvent>;

/// Clock of a consumer's current connection.
struct ConsumerClock
{
    /// Undetermined without a connection.
    Receiver::StreamClockType type = Receiver::StreamClockType::Undetermined;
    std::string address = {}; ///< of the network clock's provider, as announced
    std::uint16_t port = 0;   ///< UDP port of the provider
    /// Always true for the system clock; for a network clock, true once it is synchronised.
    bool isSynchronized = false;
    /// The clock minus CLOCK_MONOTONIC, in nanoseconds; not set while it is unknown.
    std::optional<std::int64_t> offsetNs = {};
};

/// Callbacks of a Consumer. All are optional. Without onFrame the consumer also puts everything
/// into a queue for Consumer::read(), after its callback. No lock is held during a call, and no two
/// calls overlap. Callbacks must not throw, nor start, stop or destroy the consumer; they may call
/// requestStop(). A slow callback makes this consumer lose frames, and no other.
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
    /// Receives each event, on the receiving thread or on "vlx-keeper".
    ///
    /// Each Joined is followed by exactly one Lost or Stalled before the next Joined, and before
    /// stop() returns; neither comes without a Joined before it. Frames, formats and codecs come
    /// between the two only.
    std::function<void(const ConsumerEvent&)> onEvent = {};
};

/// Counts and state of a consumer since its construction.
struct ConsumerStatistics
{
    /// Also Connecting while the consumer backs off from an unplayable sender; Idle only before
    /// start() and after the stop.
    Receiver::State state = Receiver::State::Idle;
    std::uint64_t frames = 0;      ///< received
    std::uint64_t bytes = 0;       ///< of media data
    std::uint64_t sequences = 0;   ///< announced
    std::uint64_t gaps = 0;        ///< positive gaps between frames, within and across connections
    TimeValue gapNs = 0;           ///< their sum
    std::uint64_t overlaps = 0;    ///< negative gaps
    std::uint64_t connections = 0; ///< that brought a frame
    std::uint64_t reconnects = 0;  ///< connections after the first
    std::uint64_t stalls = 0;      ///< connections left because no frames came
    std::uint64_t dropped = 0;     ///< frames dropped because the queue was full
    std::uint64_t lost = 0;        ///< frames overwritten in shared memory before they were read
    /// Nanoseconds from start(), or from the loss of the previous connection, to the first frame of
    /// the current or last connection; 0 before that frame.
    TimeValue joinNs = 0;
    StreamFormat format = {}; ///< of the current or last PCM sequence
    /// Of the current connection.
    Receiver::StreamClockType clock = Receiver::StreamClockType::Undetermined;
    /// Whether the stream's clock is known: always for the system clock; for a network clock once
    /// it is synchronised.
    bool clockSynchronized = false;
    /// The stream's clock minus CLOCK_MONOTONIC, in nanoseconds; 0 while it is unknown.
    std::int64_t clockOffsetNs = 0;
};

/// Receives one stream until it is stopped: waits for the sender, joins it, joins it again after a
/// loss or a stall, backs off from senders that cannot be played, and stops promptly.
///
/// Threads: the library's two, one of which receives, and one that supervises them, "vlx-keeper".
/// PCM is built in.
///
/// Every connection is checked before it is used: the announced main channel must be a sender's own
/// file in the sender's own directory, below a base directory that no third user controls, and of
/// the user that the options name. A join takes one connection. After a refusal, or a connection
/// without a sequence, the consumer first asks the sender what it sends, to report a clear message.
///
/// A receiver that has missed the announcement of a sequence, and would refuse every frame, joins
/// again after 20 ms, at most once a second; that is reported as Stalled.
///
/// Joining an unresponsive sender, such as a stopped one, waits without limit and without an event,
/// on one connection. A sender whose backlog is full is asked ten times a second, which costs it
/// nothing.
///
/// Misuse fails an assertion that names the correct use: start(), stop() or destruction inside a
/// callback of this consumer, and two of these calls at once.
///
/// There are two ways to receive. With a frame callback the receiving thread calls back at once.
/// Without one it puts formats, frames and events into a queue, in order, and never waits for the
/// reader: while (auto item = consumer.read()) ... An event loop watches getDescriptor() and reads
/// with a timeout of zero until nothing is left.
///
/// Operations that can fail return a Status, also if a thread cannot be started. Throws
/// std::bad_alloc.
class Consumer
{
public:
    /// Creates a consumer that is not started.
    VLX_API explicit Consumer(ConsumerOptions options, ConsumerCallbacks callbacks = {});

    /// Calls stop().
    VLX_API ~Consumer();

    Consumer(const Consumer&) = delete;
    Consumer& operator=(const Consumer&) = delete;

    /// Takes over a consumer, started or not. The one that was moved from can only be destroyed or
    /// assigned to; assignment stops the former consumer. Never self-assign, nor
    /// move during another call.
    VLX_API Consumer(Consumer&& other) noexcept;
    VLX_API Consumer& operator=(Consumer&& other) noexcept; ///< see the move constructor

    /// Registers a codec beside PCM, or in its place. Before start().
    ///
    /// Before it joins, the consumer may test a header on it, and then calls reset(): on
    /// "vlx-keeper", while nothing is received. Within a connection it gets a header only if that
    /// has changed: repeated announcements do not disturb a decoder.
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
    /// started; it may be started again. Unread items stay in the queue, ahead of those of the
    /// next start.
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

    /// Asks the consumer to leave the stream and to join it again, and returns at once. Reported as
    /// Stalled, and not counted as such; frames are lost meanwhile. A vlxsink asks for a key frame
    /// when a receiver joins. Does nothing on a consumer that is not joined.
    ///
    /// @thread any, callbacks included
    VLX_API void rejoin();

    /// Takes the next item from the queue, in order of arrival. When the queue is full, the oldest
    /// frame is dropped and counted. Events are never dropped, and take some hundred bytes each
    /// until they are read. Of several formats without a frame between them only the newest stays.
    /// The order of events is that of ConsumerCallbacks::onEvent.
    ///
    /// @param timeout  how long to wait; zero: not at all; negative: without limit
    /// @return not set after the timeout; at once if the consumer is not started or has stopped,
    ///         and the queue is empty. requestStop() ends the wait as soon as the stop is
    ///         complete, after the last event; always not set with a frame callback
    /// @thread any but a callback's; not during the destruction
    VLX_API std::optional<ConsumerItem>
    read(std::chrono::nanoseconds timeout = std::chrono::nanoseconds(-1));

    /// Interrupts the readers, for a program that pauses or stops them.
    ///
    /// @param on  true: read() returns what there is, and does not wait; false: it waits again
    /// @thread any
    VLX_API void interrupt(bool on);

    /// Pauses the stream, or resumes it. A pause discards frames, queued ones too, without counting
    /// them as dropped; formats and events stay. The next frame has isFirst set.
    ///
    /// A consumer that is paused when it starts connects to a sender, but joins it only when it is
    /// resumed. The sender still waits for its first receiver, but waitUntilJoined() and getClock()
    /// behave as if joined.
    ///
    /// @param on  whether to pause; not paused by default
    /// @thread one at a time, and not beside start()
    VLX_API void pause(bool on);

    /// @return a descriptor for poll() and event loops that is readable as long as something waits
    ///         to be read; owned by the consumer: neither read nor close it. A stop does not make
    ///         it readable. -1 if no descriptor is left, or if there is a frame callback
    /// @thread any
    VLX_API int getDescriptor();

    /// Changes ConsumerOptions::queue. Frames beyond the new limits are dropped at once.
    /// @thread any
    VLX_API void setQueueLimits(const QueueLimits& limits);

    /// Waits until a sender is joined.
    ///
    /// @param timeout  zero: do not wait; negative: without limit
    /// @return whether a sender is joined; false at once if the consumer is not started, or stops
    /// @thread any, but not inside a callback
    VLX_API bool waitUntilJoined(std::chrono::nanoseconds timeout) const;

    /// @return the clock of the current connection, with its provider
    /// @thread any, callbacks included
    VLX_API ConsumerClock getClock() const;

    /// @return current time of the stream's clock, nanoseconds; 0 while it is unknown
    /// @thread any, callbacks included
    VLX_API TimeValue getStreamTime() const;

    /// Returns the counts so far.
    /// @thread any, callbacks included
    VLX_API ConsumerStatistics getStatistics() const;

    /// Returns the ages of all frames on arrival, measured with the stream's clock. Frames that
    /// came while that clock was unknown are left out. Copies 15 KB, and a frame may have to wait
    /// meanwhile: do not call it for every frame.
    /// @thread any, callbacks included
    VLX_API AgeHistogram getAges() const;

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace vlx::kit
