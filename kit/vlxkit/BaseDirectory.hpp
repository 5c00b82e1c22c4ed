#pragma once

#include <string>

#include <vlx/VlxTypes.hpp>
#include <vlxkit/Status.hpp>

namespace vlx::kit
{

/// Purpose for which a program uses the base directory.
enum class BaseDirectoryUse
{
    /// To send: the sender creates a directory with its socket file there.
    Send,
    /// To receive: the receiver only watches for senders that appear.
    Receive,
};

/// Result of checking the base directory.
struct BaseDirectory
{
    /// Absolute path.
    std::string path;
    /// Success if the directory can be used; otherwise NoDirectory, DirectoryNotTrusted or
    /// NotPermitted.
    Status status;
    /// True if this call created the directory.
    bool created = false;
    /// Informational message about a created directory, in one line; otherwise empty.
    std::string notice;
    /// Whether files can be created there. A receiver works without that permission, but its stop
    /// then takes up to 5 seconds.
    bool writable = false;
};

/// Finds and checks the base directory, where receivers look for senders. Creates "/tmp/vlx", with
/// mode 1777, if it is missing and no other directory is set.
///
/// Refuses a directory in which another user could replace a stream's directory: one that belongs
/// neither to root nor to the effective user, and one without the sticky bit that other users may
/// write to.
///
/// The library makes no such check. If the directory is missing, a sender fails to initialise, and
/// a receiver notices starting senders late. Call this function before either is initialised.
///
/// @param use        purpose of the directory
/// @param directory  path; empty, the default: "TMPDIR", or "/tmp/vlx" if that is not set
/// @thread any
VLX_API BaseDirectory prepareBaseDirectory(BaseDirectoryUse use, const std::string& directory = {});

} // namespace vlx::kit
