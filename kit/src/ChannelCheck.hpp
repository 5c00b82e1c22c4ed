#pragma once

#include <optional>
#include <string>

#include <sys/types.h>

#include <vlx/SideChannel.hpp>
#include <vlx/VlxTypes.hpp>

namespace vlx::kit
{

/// A descriptor, closed with its owner.
class OwnedDescriptor
{
public:
    explicit OwnedDescriptor(int fd = -1) : m_fd(fd) {}
    ~OwnedDescriptor();

    OwnedDescriptor(OwnedDescriptor&& other) noexcept;
    OwnedDescriptor& operator=(OwnedDescriptor&& other) noexcept;

    /// @return -1 if there is none
    int get() const
    {
        return m_fd;
    }

private:
    int m_fd;
};

/// Result of checking the main channel that a sender announces.
struct ChannelCheck
{
    /// Why no sender announces such a main channel, as the end of a sentence that begins with the
    /// channel; empty if it is valid.
    std::string problem = {};
    /// Path of the socket file; empty if the channel is invalid.
    std::string socketFile = {};
    /// Mode of the socket file; 0 if there is none, or this user may not look.
    mode_t socketFileMode = 0;
    /// Whether this user may join: in PubSub write to the socket file, in Pipeline create it.
    bool mayJoin = false;
    /// The sender's directory, which stays the verified one whatever happens to its path.
    OwnedDescriptor directory = OwnedDescriptor();

    /// @return URI of the socket file in the verified directory, valid in this process while
    ///         `directory` is open
    std::string getURI() const;
};

/// Checks the main channel that a sender announces, before nanomsg uses it: nanomsg removes what
/// does not answer at the path, follows links, and aborts the process at a path that is too long.
///
/// The directory must be named as a sender's, be no link, belong to the sender's user, and lie in a
/// base directory that no third user controls; the file must have the name that every sender gives
/// it and be, in PubSub, a socket of the sender's user, in Pipeline any socket or nothing yet.
///
/// @param sender  user of the process that announces it, as the kernel says
/// @thread any
ChannelCheck checkChannel(const InitialInfo& info, uid_t sender);

/// As parseInitialInfoPacket(), which stops the process at a malformed packet.
///
/// @return not set if the packet is malformed
std::optional<InitialInfo> readInitialInfo(const ByteView& packet);

} // namespace vlx::kit
