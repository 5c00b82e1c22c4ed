#pragma once

#include <mutex>
#include <optional>
#include <string>

namespace vlx::kit
{

/// While it lives, "TMPDIR" names the wanted base directory, for initializeSender() and
/// initializeReceiver(), which look it up; afterwards it is what it was. A relative path becomes an
/// absolute one, since receivers may have another working directory. Nothing is changed where the
/// library would find the same directory anyway.
///
/// The kit initialises senders and receivers inside such a scope only, also those that take
/// "TMPDIR" as it is: one lock keeps the directories of two streams apart. Scopes may be nested.
///
/// @thread construct and destroy on the same thread
class ScopedTmpdir
{
public:
    /// @param directory  empty: as the environment says
    explicit ScopedTmpdir(const std::string& directory = {});
    ~ScopedTmpdir();

    ScopedTmpdir(const ScopedTmpdir&) = delete;
    ScopedTmpdir& operator=(const ScopedTmpdir&) = delete;

private:
    const std::unique_lock<std::recursive_mutex> m_lock;
    std::optional<std::string> m_former; // value to put back
    bool m_changed = false;
};

} // namespace vlx::kit
