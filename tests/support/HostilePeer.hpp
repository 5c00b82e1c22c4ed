#pragma once

#include "support/RawPeers.hpp"

namespace vlx::testing
{

/// What an untrusted peer sends to hold, or to harm, the process that reads or closes the
/// connection.
enum class Trick
{
    UrgentByte,
    LockedFile,            ///< a file that the process under test has locked
    LingeringSocket,       ///< closing it takes half a minute
    UrgentLingeringSocket, ///< the same, passed along with an urgent byte
};

inline const auto AllTricks = ::testing::Values(
    Trick::UrgentByte,
    Trick::LockedFile,
    Trick::LingeringSocket,
    Trick::UrgentLingeringSocket);

/// @return whether the trick passes a descriptor
bool passesDescriptor(Trick trick);

void PrintTo(Trick trick, std::ostream* stream);

/// Plays a trick from processes of another user, if the tests run as root.
class HostilePeer
{
public:
    /// @param directory  where its files stand until it is destroyed
    HostilePeer(Trick trick, const std::string& directory);
    ~HostilePeer();

    HostilePeer(const HostilePeer&) = delete;
    HostilePeer& operator=(const HostilePeer&) = delete;

    /// Plays the trick once on a connection.
    ///
    /// @return whether it was sent
    bool play(const RawConnection& connection);

    /// Makes a call that the trick must not hold. One that is held goes on in the end.
    ///
    /// @return whether it returned soon
    ::testing::AssertionResult isPrompt(const std::function<void()>& call);

    /// @return whether the process still holds the lock that it had before; true for other tricks
    bool isLockKept() const;

private:
    [[noreturn]] void sendFromChild() const;

    const Trick m_trick;
    const std::string m_directory;
    const std::string m_file;
    Descriptor m_locked; // owns the process's lock
    Descriptor m_asker;  // a second one of the file, closed no earlier: that would drop the lock
    std::vector<LingeringConnection> m_lingering;
    std::chrono::milliseconds m_longest{}; // of the prompt calls
};

} // namespace vlx::testing
