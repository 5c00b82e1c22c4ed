#pragma once

/// Finds the senders of this machine through the kernel, and asks what they send.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

#include <vlx/SideChannel.hpp>
#include <vlx/VlxTypes.hpp>
#include <vlxkit/StreamFormat.hpp>

namespace vlx::kit
{

/// File of shared memory that holds the frames of a stream: slots of equal size, each with a head
/// and one frame.
struct RingLayout
{
    std::string name;            ///< of the file in "/dev/shm"
    std::uint32_t numSlots = 0;  ///< frames in the file, at least 2
    std::uint64_t slotBytes = 0; ///< bytes of a frame with its head

    /// Memberwise comparison.
    bool operator==(const RingLayout&) const = default;

    /// @return path of the file
    std::string getPath() const
    {
        return "/dev/shm/" + name;
    }

    /// @return size of the file
    std::uint64_t getFileBytes() const
    {
        return numSlots * slotBytes;
    }
};

/// Answer of the process that holds a stream's name, and the rights of this user.
struct SenderProbe
{
    /// The name has a listener.
    bool reached = false;
    /// The listener's backlog is full: it is stopped or busy.
    bool busy = false;
    /// The sender closed the connection before its answer was complete.
    bool closedEarly = false;
    /// Effective user of the process that listens, as the kernel recorded it; not set if none was
    /// reached.
    std::optional<uid_t> user;
    /// The sender's first message; not set if it was late or malformed.
    std::optional<InitialInfo> initialInfo;
    /// Number of the current sequence; unset, as all that follows, if none was announced in time.
    std::optional<std::uint16_t> sequenceNr;
    /// Code of the current sequence's codec.
    std::optional<std::uint32_t> fourcc;
    /// The codec's header as it was sent.
    Buffer codecHeader;
    /// Set if the frames lie in shared memory; codec, header and format are those of the frames.
    std::optional<RingLayout> ring;
    /// Set if the codec is PCM and its header is valid.
    std::optional<StreamFormat> format;
    /// Path of the main channel's socket file. Empty unless it is a socket, or in Pipeline may
    /// become one, in a sender's own directory, which belongs to the sender's user, is no link, and
    /// lies in a base directory that no other user controls.
    std::string socketFile;
    /// Mode of the socket file; 0 if there is none, or this user may not look.
    mode_t socketFileMode = 0;
    /// Whether this user may join: in PubSub write to the socket file, in Pipeline make it.
    bool mayJoin = false;
};

/// Connects to a sender's sidechannel, reads what a new receiver would be told, looks at the socket
/// file, and closes. No answer can stop the process. Each probe of an unresponsive sender fills a
/// place in its backlog until it accepts: do not repeat such probes.
///
/// @param name     the sender's name in the abstract socket namespace
/// @param timeout  for the whole exchange. A sender that has not started a sequence yet sends no
///                 second message, and then the call takes this long
/// @thread any
VLX_API SenderProbe probeSender(const std::string& name, std::chrono::milliseconds timeout);

/// Probes several senders at once, as probeSender() does one.
///
/// @param names    of the senders
/// @param timeout  for all of them together
/// @param stopFD   a descriptor that ends the wait when it becomes readable; -1: no such descriptor
/// @return one probe per name, in the same order; late answers are not set
/// @thread any
VLX_API std::vector<SenderProbe> probeSenders(
    const std::vector<std::string>& names,
    std::chrono::milliseconds timeout,
    int stopFD = -1);

/// One sender of this machine.
struct SenderEntry
{
    std::string name;    ///< of the stream, as bytes: can contain anything, newlines included
    pid_t process = 0;   ///< of the sender
    std::string command; ///< name of its program
    uid_t user = 0;      ///< of the process
    /// Receivers that are joined, by the connections to its name; a probe counts while it asks.
    std::size_t receivers = 0;
    /// Path of its socket file as the kernel knows it; empty in Pipeline, and if its process has
    /// several senders. A probe tells more.
    std::string socketFile;
};

/// All senders that could be found.
struct SenderList
{
    std::vector<SenderEntry> senders; ///< ordered by name
    /// Processes that send and whose names only their own users and root may learn.
    std::vector<pid_t> hidden;
    /// Why senders may be missing, in one line; otherwise empty.
    std::string notice;
};

/// Finds the senders of this machine and network namespace without connecting to any of them: by
/// the kernel's socket diagnosis, and by /proc. Without socket diagnosis it reads "/proc/net/unix",
/// where a process can hide sockets by forged lines.
///
/// @thread any
VLX_API SenderList listSenders();

/// A change among the senders of this machine.
struct SenderChange
{
    /// What happened.
    enum class Kind
    {
        /// A sender was found. Reported once it has answered, or after half a second without an
        /// answer.
        Came,
        /// The sender's answer or its number of receivers has changed, or it has ceased or begun to
        /// answer.
        Changed,
        /// The sender has closed, or its process has ended.
        Gone,
    };

    Kind kind = Kind::Came; ///< what happened
    SenderEntry sender;     ///< as it is now; Gone: as it was
    /// The sender's latest answer, as probeSender() returns it; without initialInfo if the sender
    /// does not answer.
    SenderProbe probe;
};

/// Watches the senders that listSenders() finds: which come, change and go. Each one is asked what
/// it announces when it comes, and then every few seconds. A sender that does not answer, a stopped
/// one for instance, is asked over a single connection, which waits for the answer.
///
/// A look takes about as long as the kernel needs to list the sockets of the machine. The processes
/// are searched only if a listening socket has come or gone, and every ten seconds.
///
/// @thread one at a time
class SenderWatch
{
public:
    /// A watch that has not seen any sender yet.
    ///
    /// @param interval  between two questions to a sender that has answered
    VLX_API explicit SenderWatch(std::chrono::milliseconds interval = std::chrono::seconds(5));
    /// Closes the connections.
    VLX_API ~SenderWatch();

    SenderWatch(const SenderWatch&) = delete;
    SenderWatch& operator=(const SenderWatch&) = delete;

    /// Takes over what the other watch has seen. The one that was moved from can only be destroyed
    /// or assigned to.
    VLX_API SenderWatch(SenderWatch&& other) noexcept;
    VLX_API SenderWatch& operator=(SenderWatch&& other) noexcept; ///< see the move constructor

    /// Looks, and returns without waiting for any sender. Call it a few times a second: a sender
    /// that comes and goes between two calls is not reported.
    ///
    /// @return changes since the previous call; the first call reports every sender
    VLX_API std::vector<SenderChange> look();

    /// @return the senders of the latest search, with the hidden ones and the notice
    VLX_API const SenderList& getList() const;

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

/// A directory left by a killed sender, or the wake-up file of a killed program.
struct DeadEntry
{
    std::string path; ///< full path
    /// Why it could not be removed, in one line; empty if it was removed.
    std::string problem;
};

/// Result of removeDeadEntries().
struct CleanupResult
{
    std::vector<DeadEntry> entries; ///< what was dead, ordered by path
    /// Why nothing could be judged, in one line; otherwise empty.
    std::string notice;
    std::size_t numRecent = 0; ///< entries kept because they are younger than a minute
    /// Entries kept because a sender of their user does not answer or cannot be identified.
    std::size_t numUncertain = 0;
};

/// Removes from a base directory what dead programs have left, if it is older than a minute:
/// directories that no reachable sender announces, whose lock is not held, and in which no process
/// serves a socket; and wake-up files of killed producers and consumers.
///
/// Skips directories of users with unidentified or unresponsive senders. Cannot recognise a live
/// Pipeline sender that does not use the kit and runs in another container with the same base
/// directory.
///
/// @param baseDirectory  path; empty: "TMPDIR", or "/tmp/vlx"
/// @param stopFD         a descriptor that ends the call when it becomes readable; -1: no such
///                       descriptor
/// @thread any
VLX_API CleanupResult removeDeadEntries(const std::string& baseDirectory = {}, int stopFD = -1);

/// @return whether another socket is bound to the name in the abstract socket namespace, so that a
///         sender could not take it
/// @thread any
VLX_API bool isNameTaken(const std::string& name);

/// @return whether a process listens as the sender of this name; connects to none
/// @thread any
VLX_API bool isSenderPresent(const std::string& name);

/// @return the four characters of a code, for messages
VLX_API std::string toFourccText(std::uint32_t fourcc);

} // namespace vlx::kit
