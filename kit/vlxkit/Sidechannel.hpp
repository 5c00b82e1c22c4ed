#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include <vlx/SideChannel.hpp>

namespace vlx::kit
{

/// Who answered under a sender's name, and with what.
struct SidechannelAnswer
{
    /// Somebody listens under the name.
    bool reached = false;
    /// The connection was closed from the other side before everything that was asked for had come.
    bool closedEarly = false;
    /// Unset if none came in time, or what came is none.
    std::optional<InitialInfo> initialInfo;
    /// Code of the current sequence's codec; unset if none was announced in time.
    std::optional<std::uint32_t> fourcc;
    /// The codec's header as it was sent.
    Buffer codecHeader;
};

/// Connects to a sender's sidechannel, reads what a new receiver would be told, and closes. Nothing
/// that comes back can stop the process: malformed messages are no answer.
///
/// @param name     the sender's name in the abstract socket namespace
/// @param timeout  for the whole exchange. A sender that has not started a sequence yet sends no
///                 second message, and then the call takes this long
/// @thread any
SidechannelAnswer askSidechannel(const std::string& name, std::chrono::milliseconds timeout);

/// @return whether another socket is bound to the name in the abstract socket namespace, so that a
///         sender could not take it
/// @thread any
bool isNameTaken(const std::string& name);

/// @return the four characters of a code, for messages
std::string toFourccText(std::uint32_t fourcc);

} // namespace vlx::kit
