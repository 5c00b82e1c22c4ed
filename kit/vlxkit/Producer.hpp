#pragma once

/// The complete sending end of a stream.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <vlx/SideChannel.hpp>
#include <vlx/VlxPayload.hpp>
#include <vlx/VlxTypes.hpp>
#include <vlxkit/RealTime.hpp>
#include <vlxkit/Status.hpp>
#include <vlxkit/StreamFormat.hpp>

namespace vlx::kit
{

/// Users whose receivers may join a stream. A process that may write to a publisher's socket file
/// can also end the publisher.
enum class SocketMode
{
    /// The sender's user.
    Owner,
    /// Also the sender's group.
    Group,
    /// All users.
    All,
};

/// How the frames of a stream travel.
enum class Carriage
{
    /// In packets: every receiver can read them.
    Inline,
    /// In shared memory; packets contain only their places. Far faster for frames of several
    /// kilobytes. Only consumers of the kit with the same "/dev/shm" can read them, without any
    /// option; a receiver on the core alone cannot play the stream.
    Shared,
    /// Shared if the nominal frame of the format has at least 8192 bytes, otherwise inline.
    Automatic,
};

/// Options of frames in shared memory. The memory is reserved when the stream opens; with the first
/// frame in Pipeline, or if the size of frames is unknown. If it is too small, the frames travel
/// inline, with a notice.
struct SharedMemory
{
    Carriage carriage = Carriage::Inline; ///< of the frames
    /// Nominal size of a frame, as its payloader wraps it; 0: unknown, or for PCM that of
    /// `frameDuration`. A larger frame makes the producer open larger memory.
    std::size_t frameBytes = 0;
    std::chrono::nanoseconds frameDuration{0}; ///< nominal; zero: that of the first frame
    /// Time that a sent frame stays readable, at least four frames; a slower receiver loses it. It
    /// counts in frames of the duration that was known when the memory was reserved, and halves
    /// while half of the memory is handed out by Producer::acquire(). In Pipeline no frame is lost:
    /// the memory holds at least 20.
    std::chrono::nanoseconds span = std::chrono::milliseconds(100);
    /// Largest memory, at most 1 GiB; too little memory shortens the span.
    std::size_t maxBytes = 64 << 20;
};

/// Memory for one frame, from Producer::acquire(). Copies share it; it may outlive the producer.
struct FrameMemory
{
    std::shared_ptr<std::uint8_t[]> data; ///< to be filled; aligned for vector instructions
    std::size_t size = 0;                 ///< bytes

    /// @return the whole memory, for Producer::send()
    operator ByteView() const // NOLINT(google-explicit-constructor): it is one
    {
        return {data.get(), size};
    }
};

/// Payloader of a codec whose frames travel unchanged. As with PCM, frames in shared memory
/// are not copied an additional time.
class VLX_API PlainPayloader final : public Payloader
{
public:
    /// Creates a payloader that leaves frames as they are.
    ///
    /// @param fourcc       code of the codec
    /// @param codecHeader  announced with every sequence
    PlainPayloader(std::uint32_t fourcc, const ByteView& codecHeader) : Payloader(fourcc)
    {
        m_codecHeader.assign(codecHeader.begin(), codecHeader.end());
    }
};

/// Options of a Producer.
struct ProducerOptions
{
    /// Name of the stream, 1 to 107 bytes.
    std::string name;
    /// Used if another sender holds the name; empty: opening then fails.
    std::string alternativeName = {};
    /// PubSub: any number of receivers; Pipeline: one.
    NanomsgProtocol protocol = NanomsgProtocol::PubSub;
    /// Announced clock of the timestamps.
    TimeSyncProtocol clock = TimeSyncProtocol::MonotonicSystemClock;
    /// Announced address of the network clock's provider; empty: no provider. The producer does
    /// not follow this clock: to stamp frames with its time, use a SyncedNetClock.
    std::string clockAddress = {};
    std::uint16_t clockPort = 0; ///< UDP port of the provider; 0: no provider
    /// Users whose receivers may join.
    SocketMode socketMode = SocketMode::Owner;
    /// Directory in which senders and receivers of this machine meet; empty: "TMPDIR", or
    /// "/tmp/vlx", which is created if it is missing. Any other directory must exist. See
    /// prepareBaseDirectory().
    std::string baseDirectory = {};
    /// Scheduling of the stream's threads.
    RealTime realTime = {};
    /// How frames travel.
    SharedMemory sharedMemory = {};
    /// Receives informational messages, one line each, on the thread that opens and sends. Not set:
    /// they go to the logger "Vellox.Kit" as WARN.
    std::function<void(const std::string&)> onNotice = {};
    /// Receives the number of joined receivers each time it has changed, on the thread that sends:
    /// within send(), checkReceivers() and waitForReceivers(), at most 100 ms after the change if
    /// that thread calls one of them. It reports both changes if one receiver has left and another
    /// has joined meanwhile. A stream that closes reports nothing, and counts from 0 again when it
    /// is opened. Must not call the producer.
    std::function<void(std::size_t)> onReceivers = {};
};

/// Counts of a producer since its construction.
struct ProducerStatistics
{
    std::uint64_t frames = 0;    ///< sent
    std::uint64_t bytes = 0;     ///< of media data
    std::uint64_t sequences = 0; ///< opened
    /// Receivers with an open sidechannel and an open main channel; up to 100 ms old.
    std::size_t receivers = 0;
};

/// Sends one stream. Opens it so that no receiver misses the beginning, re-announces a sequence to
/// receivers that joined as it began, and lets the last frame leave before it closes.
///
/// One thread opens, sends and closes; two at once fail an assertion. Any thread may call stop(),
/// interrupt(), acquire() and getStatistics(). To close a stream from another thread, call stop()
/// and join the sending thread first. The caller paces the frames: a receiver loses what it cannot
/// take at once, so bursts lose frames.
///
/// Operations that can fail return a Status, also if a thread cannot be started. Throws
/// std::bad_alloc, and what a payloader throws.
///
/// In a forked child the copy of a producer only closes its descriptors; the parent's goes on.
class Producer
{
public:
    /// Creates a producer that is not open.
    VLX_API explicit Producer(ProducerOptions options);

    /// Calls close().
    VLX_API ~Producer();

    Producer(const Producer&) = delete;
    Producer& operator=(const Producer&) = delete;

    /// Takes over a producer, open or not. The one that was moved from can only be destroyed or
    /// assigned to; assignment closes the former stream. Never self-assign, nor move
    /// during another call.
    VLX_API Producer(Producer&& other) noexcept;
    VLX_API Producer& operator=(Producer&& other) noexcept; ///< see the move constructor

    /// Opens the stream with PCM audio: checks or makes the base directory, initialises the sender
    /// and starts the first sequence directly after it, sets who may join, narrows the sender's
    /// directory so that no other user can put anything into it, and wakes waiting receivers. The
    /// socket file never has a wider mode than the option says; the umask of the process stays.
    /// Removes the directories of dead producers of this user.
    ///
    /// @return NameInvalid; NameTaken; InvalidArgument for the format and the options; NoDirectory,
    ///         DirectoryNotTrusted or NotPermitted for the base directory; NotPermitted also if
    ///         real-time scheduling is required and not available; OutOfResources; AlreadyOpen;
    ///         Stopped; Interrupted; Failed
    VLX_API Status open(const StreamFormat& format);

    /// Opens the stream with any other codec.
    ///
    /// @param payloader  not owned; must outlive its use, until close() or the next setFormat()
    VLX_API Status open(Payloader& payloader);

    /// Opens a new sequence if the format differs from the current one; otherwise does nothing.
    ///
    /// @return NotOpen, Stopped, Interrupted, or InvalidArgument; the previous format then stays
    VLX_API Status setFormat(const StreamFormat& format);

    /// Opens a new sequence with the payloader's current header, even an unchanged one.
    VLX_API Status setFormat(Payloader& payloader);

    /// Opens a new sequence of the current format, for receivers that may have missed the last one.
    ///
    /// @return NotOpen, Stopped or Interrupted
    VLX_API Status announce();

    /// Sends one frame. PubSub: never waits for a receiver. Pipeline: blocks until a receiver takes
    /// it, also one that joins later; stop() and interrupt() end that wait. First opens another
    /// sequence if a receiver joined within a second of the current one's start and may have missed
    /// it. Allocates nothing per frame, without ProducerOptions::onReceivers. Reserving shared
    /// memory takes about 1 ms for each MiB; with a known size of frames, open() does that.
    ///
    /// @param timestamp  of the frame's first sample, nanoseconds on the announced clock
    /// @param duration   nanoseconds
    /// @param mediaData  a whole number of samples in the current format; not used after the call
    /// @return NotOpen, Stopped, Interrupted, or InvalidArgument if the media data ends within a
    ///         sample: the frame was not sent
    VLX_API Status send(TimeValue timestamp, TimeValue duration, const ByteView& mediaData);

    /// Returns memory for a frame: a part of the shared memory, which send() then does not copy if
    /// the payloader is PCM or a PlainPayloader. Otherwise, and while half of the shared memory is
    /// handed out, ordinary memory. Fill it, send all or part of it while it exists, then leave it
    /// unchanged.
    ///
    /// @param size  bytes
    /// @thread any
    VLX_API FrameMemory acquire(std::size_t size);

    /// Opens another sequence for receivers that have just joined, as send() does. Call it every
    /// few milliseconds while nothing is sent.
    ///
    /// @return number of joined receivers
    VLX_API std::size_t checkReceivers();

    /// Waits until a number of receivers have joined, each with both connections open. In Pipeline
    /// a receiver counts when it has bound.
    ///
    /// @param count    receivers
    /// @param timeout  zero: do not wait; negative: without limit
    /// @return TimedOut, NotOpen, Stopped or Interrupted
    VLX_API Status waitForReceivers(
        std::size_t count,
        std::chrono::nanoseconds timeout = std::chrono::nanoseconds(-1));

    /// Interrupts: a blocked operation and all later ones return Interrupted, until this is called
    /// with false. An operation that was freed
    /// returns Interrupted even if interrupt(false) has followed at once. In PubSub a frame that is
    /// being sent is still sent. In Pipeline a freed send has not sent its frame, unless the
    /// receiver took it in that instant. May come before open().
    ///
    /// @param on  true: interrupt; false: take the interruption back
    /// @thread any; not from a signal handler
    VLX_API void interrupt(bool on);

    /// Stops for good: a blocked operation and all later ones return Stopped, and only close() is
    /// left to call. May come before or during open().
    ///
    /// @thread any; not from a signal handler
    VLX_API void stop();

    /// Closes the stream. If frames were sent, waits until the last one has had its duration, at
    /// least 100 ms, since what has not left the process by then is lost; after stop() 100 ms at
    /// most. Does nothing on a producer that is not open. It may be opened again, unless stopped.
    VLX_API void close();

    /// @return name under which the stream was opened; empty before
    VLX_API const std::string& getName() const;

    /// @return path of the main channel's socket file; empty before open(). In Pipeline the
    ///         receiver creates it
    VLX_API const std::string& getSocketFile() const;

    /// Returns the counts so far.
    /// @thread any
    VLX_API ProducerStatistics getStatistics() const;

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace vlx::kit
