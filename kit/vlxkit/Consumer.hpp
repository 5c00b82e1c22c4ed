#pragma once

/// A stream's receiving end that heals itself.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <vlx/VlxPayload.hpp>
#include <vlx/VlxReceiver.hpp>
#include <vlx/VlxTypes.hpp>
#include <vlxkit/AgeHistogram.hpp>
#include <vlxkit/RealTime.hpp>
#include <vlxkit/StreamFormat.hpp>

namespace vlx::kit
{

/// How a stream is joined.
struct ConsumerOptions
{
    /// Of the stream, 1 to 107 bytes.
    std::string name;
    /// Where senders and receivers of this machine meet; empty: "TMPDIR", or "/tmp/vlx", which is
    /// made if it is missing. Any other directory must exist; "TMPDIR" is then set to it for an
    /// instant whenever the consumer's own thread begins to look for the sender, between start()
    /// and stop(): a process whose other threads use the environment sets "TMPDIR" itself instead.
    std::string baseDirectory = {};
    /// A joined stream without a frame for so long is joined again; zero: never. The time doubles
    /// with each attempt that brought nothing, up to sixteenfold.
    std::chrono::nanoseconds stallTimeout = std::chrono::seconds(2);
    /// Of the stream's threads.
    RealTime realTime = {};
};

/// One frame, as the frame callback gets it.
struct Frame
{
    TimeValue timestamp = 0; ///< as the sender gave it; nanoseconds by convention
    TimeValue duration = 0;  ///< same unit
    const Buffer& data;      ///< valid during the callback only: copy what you keep
    /// Nanoseconds between the end of the frame before and this one: what is missing if positive,
    /// what overlaps if negative, 0 within the jitter of a millisecond or half a frame. Also across
    /// two connections; 0 for the first frame of all, and after a change of the stream's clock.
    std::int64_t gapNs = 0;
    /// First frame of a connection or of a format: whatever decodes starts afresh.
    bool isFirst = false;
    TimeValue arrival = 0; ///< nanoseconds of CLOCK_MONOTONIC
};

/// Something that happened to the connection.
struct ConsumerEvent
{
    /// What happened.
    enum class Kind
    {
        /// A sender was joined; the format and frames follow.
        Joined,
        /// The connection has ended: by the sender, or by an error on the way.
        Lost,
        /// Joined, but no frame came for the stall timeout: joining again. Told each time, beside the
        /// Joined that follows.
        Stalled,
        /// The stream's codec has no depayloader here, or its depayloader rejects the header. As all
        /// that follow: told once, until something else happens, and tried again every two seconds.
        CannotPlay,
        /// This user may not write to the sender's socket file, and would get no frame.
        NotPermitted,
        /// Whoever holds the name is no sender: ends every connection before it announces a stream,
        /// or announces a main channel that is none. Nobody is called so before he was looked at
        /// several times.
        Stranger,
        /// The receiver could not go on: with no descriptor left, for instance, or in Pipeline with
        /// another receiver on the stream.
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

/// What a consumer gets to know. All but onFrame may be empty. No lock is held during a call, and
/// no two calls overlap. They must not throw, nor start, stop or destroy the consumer. One that
/// takes long makes this consumer lose frames, and nobody else.
struct ConsumerCallbacks
{
    /// A frame, on the receiving thread.
    std::function<void(const Frame&)> onFrame;
    /// The format of the PCM frames that follow: before the first frame of each connection, and at
    /// each change. On the receiving thread.
    std::function<void(const StreamFormat&)> onFormat = {};
    /// The same for a codec of one's own: its depayloader has just taken the header.
    std::function<void(Depayloader&)> onCodec = {};
    /// On the receiving thread or on the consumer's own.
    std::function<void(const ConsumerEvent&)> onEvent = {};
};

/// All counts of a consumer, since its construction, taken at one moment.
struct ConsumerStatistics
{
    /// Connecting as well while somebody is left alone; Idle only before start() and after stop().
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
    /// From start(), or from the loss of the connection before, to the first frame; of the present
    /// or last connection, nanoseconds; 0 before.
    TimeValue joinNs = 0;
    /// Of frames on arrival, against the stream's clock. Empty for a stream without a clock, and for
    /// frames that came before its network clock was synchronised.
    AgeHistogram ages;
    StreamFormat format = {}; ///< of the present or last PCM sequence
    /// Of the present connection.
    Receiver::StreamClockType clock = Receiver::StreamClockType::Undetermined;
    /// The stream's clock can be told: always for the system's, once synchronised for a network's.
    bool clockSynchronized = false;
    /// The stream's clock less CLOCK_MONOTONIC, nanoseconds; 0 while it cannot be told.
    std::int64_t clockOffsetNs = 0;
};

/// Receives one stream for as long as it is wanted: waits for the sender, joins it, joins it again
/// after a loss or a stall, leaves alone for a while what cannot be played, and stops promptly.
///
/// Threads: the library's two, and one that watches over them, "vlx-keeper". PCM is built in.
///
/// A sender that is there already is asked what it sends before it is joined, and one that brings
/// nothing is asked before it is joined again. What remains: a receiver that waits while nobody is
/// there, or whose connection has just been lost, joins whoever comes without a look, for the sake
/// of the first frames. So a stranger who takes the name then is met as Receiver's documentation
/// says, and is looked at only when he brings no stream.
///
/// One who does not answer, being stopped for instance, is waited for on one connection, without
/// limit and without an event; one whose backlog is full is asked ten times a second, which costs
/// him nothing.
///
/// Nothing throws but the standard library (no memory, no thread).
class Consumer
{
public:
    /// A consumer that does nothing yet.
    VLX_API Consumer(ConsumerOptions options, ConsumerCallbacks callbacks);

    /// Calls stop().
    VLX_API ~Consumer();

    Consumer(const Consumer&) = delete;
    Consumer& operator=(const Consumer&) = delete;

    /// Registers a codec beside PCM, or in its place. Before start().
    ///
    /// Headers are tried on it before its stream is joined, too, and taken back with reset(): on
    /// the consumer's own thread, while nothing is received.
    ///
    /// @param depayloader  not owned; must outlive the consumer
    VLX_API void addDepayloader(Depayloader& depayloader);

    /// Starts to receive; returns at once, whether there is a sender or not.
    ///
    /// @return false if the name is none, onFrame is empty, the base directory cannot be used, no
    ///         descriptor or thread is left, or real-time scheduling is required and not to be had;
    ///         see getProblem()
    VLX_API bool start();

    /// Stops. No callback runs any more once it has returned, normally within milliseconds. Does
    /// nothing on a consumer that is not started; it may be started again.
    ///
    /// It takes up to 5 seconds where nothing can be written in the base directory, where that was
    /// removed meanwhile, or where the user has no inotify instance left; up to 400 ms if a sender
    /// has come while nobody was there, and its backlog has filled up within the last half second.
    ///
    /// @thread that of start(), never inside a callback
    VLX_API void stop();

    /// @return nanoseconds on the stream's clock; 0 while it cannot be told
    /// @thread any, callbacks included
    VLX_API TimeValue getStreamTime() const;

    /// @return why start() failed, or with what restrictions it works, in one line; else empty
    VLX_API const std::string& getProblem() const;

    /// Returns the counts so far.
    /// @thread any, callbacks included
    VLX_API ConsumerStatistics getStatistics() const;

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace vlx::kit
