#pragma once

#include <string>

namespace vlx::kit
{

/// Wakes receivers that wait for a sender: it can be joined now.
///
/// Receivers notice a sender by its directory, which appears a moment before the sender listens. A
/// receiver that tries in between waits up to 400 ms. The bell is a short-lived file in the base
/// directory, named so that waiting receivers treat it as a sender's entry and newly started ones
/// do not.
///
/// Call it after initializeSender() and startNewSequence().
///
/// @param baseDirectory  directory that contains the sender's own; empty: "TMPDIR", or "/tmp/vlx"
/// @return whether the file was created; otherwise errno has the reason, and receivers join up to
///         400 ms later
/// @thread any
bool ringBell(const std::string& baseDirectory = {});

} // namespace vlx::kit
