#pragma once

#include <string>

namespace vlx::kit
{

/// Tells receivers that wait for a sender that it can be joined now.
///
/// Receivers notice a sender by its directory, which appears a moment before the sender can be
/// reached; one that tried in between sleeps up to 400 ms. The bell is a second entry in the same
/// directory, named so that waiting receivers take it for a sender's and newly started ones do not.
///
/// Call it after initializeSender() and startNewSequence().
///
/// @param baseDirectory  where the sender's own directory is; empty: "TMPDIR", or "/tmp/vlx"
/// @return whether it rang; otherwise errno tells why, and receivers join up to 400 ms later
/// @thread any
bool ringBell(const std::string& baseDirectory = {});

} // namespace vlx::kit
