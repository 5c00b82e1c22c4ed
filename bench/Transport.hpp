#pragma once

/// What a benchmark needs of a transport: one end that publishes frames, one that hands them over.
///
/// Each program vlx_bench_end_<name> is the endpoint's main program linked with one adapter, which
/// defines makePublisher() and makeSubscriber(); so no process carries another peer's libraries.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

namespace vlx::bench
{

/// Where both ends meet, and how the adapter is to be set up.
struct Link
{
    std::string name;       ///< unique per session; part of socket names and file names
    std::string directory;  ///< private to the run; short, without a slash at the end
    std::string variant;    ///< adapter's own: which set of options; empty for defaults
    std::size_t mediaBytes; ///< size of each frame's media data
};

/// Called for each frame that arrives: time stamp in nanoseconds, and the media data, which is
/// valid only during the call. One thread per subscriber.
using FrameHandler = std::function<void(std::uint64_t, std::span<const std::uint8_t>)>;

/// The sending end. One thread.
class Publisher
{
public:
    virtual ~Publisher() = default;

    /// Makes the stream reachable; returns without waiting for subscribers.
    /// @return false after a message on standard error
    virtual bool open() = 0;

    /// @return where the next frame's media data is to be written, Link::mediaBytes long; the same
    ///         place for every frame
    virtual std::span<std::uint8_t> media() = 0;

    /// Sends the frame that stands in media(); dropping it is the transport's right.
    virtual void send(std::uint64_t timestampNs) = 0;
};

/// The receiving end. Its threads run until the process ends; it is never destroyed before.
class Subscriber
{
public:
    virtual ~Subscriber() = default;

    /// Starts to receive, and returns.
    /// @return false after a message on standard error
    virtual bool start(FrameHandler handler) = 0;
};

std::unique_ptr<Publisher> makePublisher(const Link& link);
std::unique_ptr<Subscriber> makeSubscriber(const Link& link);

} // namespace vlx::bench
