#pragma once

/// Who sends on this machine, and what: looked up in /proc, and asked by name.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

#include <vlx/SideChannel.hpp>
#include <vlx/VlxTypes.hpp>
#include <vlxkit/StreamFormat.hpp>

namespace vlx::kit
{

/// What somebody who holds a stream's name answered, and what that means for this user.
struct SenderProbe
{
    /// Somebody listens under the name.
    bool reached = false;
    /// Somebody listens, but his backlog is full: he is stopped, or busy.
    bool busy = false;
    /// The connection was closed from the other side before everything that was asked for had come.
    bool closedEarly = false;
    /// Effective user of the process that listens, as the kernel recorded it; not set if none was
    /// reached.
    std::optional<uid_t> user;
    /// Not set if it did not come in time, or was malformed.
    std::optional<InitialInfo> initialInfo;
    /// Number of the current sequence; unset, as all that follows, if none was announced in time.
    std::optional<std::uint16_t> sequenceNr;
    /// Code of the current sequence's codec.
    std::optional<std::uint32_t> fourcc;
    /// The codec's header as it was sent.
    Buffer codecHeader;
    /// Set if the codec is PCM and its header is valid.
    std::optional<StreamFormat> format;
    /// Path of the main channel's socket file; empty if no sender announces such a URI: the
    /// directory must be a sender's, of the sender's user, no link, and in a base directory that no
    /// other user controls; the file a socket or, in Pipeline, nothing yet.
    std::string socketFile;
    /// Mode of the socket file; 0 if there is none, or this user may not look.
    mode_t socketFileMode = 0;
    /// Whether this user may join: in PubSub write to the socket file, in Pipeline make it.
    bool mayJoin = false;
};

/// Connects to a sender's sidechannel, reads what a new receiver would be told, looks at the socket
/// file, and closes. Nothing that comes back can stop the process. One who does not answer keeps a
/// place in his backlog occupied for as long as he does not accept: do not ask again and again.
///
/// @param name     the sender's name in the abstract socket namespace
/// @param timeout  for the whole exchange. A sender that has not started a sequence yet sends no
///                 second message, and then the call takes this long
/// @thread any
VLX_API SenderProbe probeSender(const std::string& name, std::chrono::milliseconds timeout);

/// One sender of this machine.
struct SenderEntry
{
    std::string name;    ///< of the stream
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
};

/// Finds the senders of this machine and network namespace, in /proc alone: nobody is connected to.
///
/// @thread any
VLX_API SenderList listSenders();

/// A directory that a killed sender has left behind.
struct DeadDirectory
{
    std::string path; ///< the whole
    /// Empty if it was removed, otherwise why not, in one line.
    std::string problem;
};

/// Removes from a base directory what dead senders have left: directories that no reachable sender
/// announces, in which nobody serves a socket, and that are older than a minute. Never one that is
/// in doubt: whose user has a sender whose name cannot be found out, or that does not answer. Senders
/// in Pipeline that /proc does not show, of another container with the same base directory, are not
/// found.
///
/// @param baseDirectory  empty: "TMPDIR", or "/tmp/vlx"
/// @return what was found to be dead, ordered by path
/// @thread any
VLX_API std::vector<DeadDirectory> removeDeadDirectories(const std::string& baseDirectory = {});

/// @return whether another socket is bound to the name in the abstract socket namespace, so that a
///         sender could not take it
/// @thread any
VLX_API bool isNameTaken(const std::string& name);

/// @return the four characters of a code, for messages
VLX_API std::string toFourccText(std::uint32_t fourcc);

} // namespace vlx::kit
