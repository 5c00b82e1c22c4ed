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
    /// As senders and receivers use it.
    std::string path;
    /// Empty if the directory can be used; otherwise one line that says what is wrong with it.
    std::string problem;
    /// The directory was made by this call.
    bool created = false;
    /// Entries can be made there. A receiver works without, but its stop takes up to 5 seconds.
    bool writable = false;
};

/// Finds the directory in which senders meet their receivers, and checks that it serves. "/tmp/vlx"
/// is made, with mode 1777, if it is missing and nothing else is wanted.
///
/// The library makes no such check: a sender without the directory fails to initialise, and a
/// receiver without it finds starting senders late. Call this before either is initialised.
///
/// @param use        what it has to serve for
/// @param directory  empty: "TMPDIR", or "/tmp/vlx"
/// @thread any
VLX_API BaseDirectory prepareBaseDirectory(BaseDirectoryUse use, const std::string& directory = {});

} // namespace vlx::kit
