#pragma once

#include <optional>
#include <string>

#include <sys/types.h>

#include <vlx/SideChannel.hpp>
#include <vlx/VlxTypes.hpp>

#include "base/OwnedDescriptor.hpp"

namespace vlx::kit
{

/// Result of checking the main channel that a sender announces.
struct ChannelCheck
{
    /// Why the channel is invalid, as the end of a sentence that begins with the channel; empty if
    /// it is valid.
    std::string problem = {};
    /// Path of the socket file; empty if the channel is invalid.
    std::string socketFile = {};
    /// Mode of the socket file; 0 if it is missing or not visible to this user.
    mode_t socketFileMode = 0;
    /// Whether this user may join: in PubSub write to the socket file, in Pipeline create it.
    bool mayJoin = false;
    /// The verified directory, even if its path is replaced later.
    OwnedDescriptor directory = OwnedDescriptor();

    /// @return URI of the socket file in the verified directory, valid in this process while
    ///         `directory` is open
    std::string getURI() const;
};

/// Checks the main channel that a sender announces, before nanomsg uses it. Nanomsg removes a
/// socket file that does not answer, follows links, and aborts the process if the path is too long.
///
/// The directory must have a sender's name, must not be a link, must belong to the sender's user,
/// and must lie in a base directory that no third user controls. The file must have the name that
/// every sender uses. In PubSub it must be a socket of the sender's user; in Pipeline any socket,
/// or not exist yet.
///
/// @param sender  user of the announcing process, as reported by the kernel
/// @thread any
ChannelCheck checkChannel(const InitialInfo& info, uid_t sender);

/// Parses an InitialInfo packet, as parseInitialInfoPacket() does, but survives a malformed one.
///
/// @return not set if the packet is malformed
std::optional<InitialInfo> readInitialInfo(const ByteView& packet);

} // namespace vlx::kit
