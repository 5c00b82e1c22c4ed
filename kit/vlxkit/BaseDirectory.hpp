#pragma once

#include <string>

#include <vlx/VlxTypes.hpp>

namespace vlx::kit
{

/// What a program wants from the base directory.
enum class BaseDirectoryUse
{
    /// A sender makes its private directory there, with a socket file in it.
    Send,
    /// A receiver only watches for senders that appear.
    Receive,
};

/// What was found out about the base directory.
struct BaseDirectory
{
    /// Absolute path.
    std::string path;
    /// Empty if the directory can be used; otherwise one line that says what is wrong with it.
    std::string problem;
    /// The directory was made by this call.
    bool created = false;
    /// What the user should know about a directory that was made, in one line; otherwise empty.
    std::string notice;
    /// Entries can be made there. A receiver works without, but its stop takes up to 5 seconds.
    bool writable = false;
};

/// Finds and checks the directory in which senders meet their receivers. Creates "/tmp/vlx", with
/// mode 1777, if it is missing and no other directory is set.
///
/// Refuses a directory in which another user could replace a stream's directory: one that belongs
/// neither to root nor to the effective user, and one that other users may write to without the
/// sticky bit.
///
/// The library makes no such check: a sender without the directory fails to initialise, and a
/// receiver without it finds starting senders late. Call this before either is initialised.
///
/// @param use        what the directory is needed for
/// @param directory  path; empty: "TMPDIR", or "/tmp/vlx"
/// @thread any
VLX_API BaseDirectory prepareBaseDirectory(BaseDirectoryUse use, const std::string& directory = {});

} // namespace vlx::kit
