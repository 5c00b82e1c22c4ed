#pragma once

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
/// @return whether it rang; otherwise errno tells why, and receivers join up to 400 ms later
/// @thread any, one at a time
bool ringBell();

} // namespace vlx::kit
