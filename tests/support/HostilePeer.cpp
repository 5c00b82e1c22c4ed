#include "support/HostilePeer.hpp"

#include <array>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vlx::testing
{

namespace
{

constexpr uid_t OtherUser = 65534;

// Far above what a busy machine needs, and far below what the tricks cost.
constexpr std::chrono::seconds PromptLimit{5};

bool becomeOtherUser()
{
    const bool done = ::geteuid() != 0 || (::setresgid(OtherUser, OtherUser, OtherUser) == 0 &&
                                           ::setresuid(OtherUser, OtherUser, OtherUser) == 0);
    ::prctl(PR_SET_PDEATHSIG, SIGKILL); // a change of the user forgets it
    return done;
}

/// Leaves a forked child nothing but the first three descriptors, which become these.
void keepOnly(int first, int second, int third)
{
    const int kept[] = {first, second, third};
    for (int fd = 0; fd < 3; ++fd)
        ::dup2(kept[fd], fd);
    ::syscall(SYS_close_range, 3U, ~0U, 0U);
}

/// @return the next byte; 0 if the other end is closed before it comes
char readByte(int fd)
{
    char byte = 0;
    return ::read(fd, &byte, 1) == 1 ? byte : '\0';
}

} // unnamed namespace

bool passesDescriptor(Trick trick)
{
    return trick != Trick::UrgentByte;
}

void PrintTo(Trick trick, std::ostream* stream)
{
    constexpr std::array Names = {
        "UrgentByte", "LockedFile", "LingeringSocket", "UrgentLingeringSocket"};
    *stream << Names.at(static_cast<std::size_t>(trick));
}

HostilePeer::HostilePeer(Trick trick, const std::string& directory)
    : m_trick(trick), m_directory(directory + "/hostile"), m_file(m_directory + "/file")
{
    if (m_trick != Trick::LockedFile)
        return;
    ::chmod(directory.c_str(), 0711);
    std::filesystem::create_directory(m_directory);
    m_locked = Descriptor(::open(m_file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666));
    ::fchmod(m_locked.get(), 0666);
    m_asker = Descriptor(::open(m_file.c_str(), O_RDWR | O_CLOEXEC));
    struct flock whole = {};
    whole.l_type = F_WRLCK;
    EXPECT_EQ(::fcntl(m_locked.get(), F_SETLK, &whole), 0);
    EXPECT_TRUE(isLockKept());
}

HostilePeer::~HostilePeer()
{
    std::error_code error;
    std::filesystem::remove_all(m_directory, error);
}

/// Its descriptors: the connection, one for the result, and what it passes if that is open already.
void HostilePeer::sendFromChild() const
{
    readByte(STDOUT_FILENO);
    if (!becomeOtherUser())
        ::_exit(1);
    const int passedFD =
        m_trick == Trick::LockedFile ? ::open(m_file.c_str(), O_RDWR | O_CLOEXEC) : STDERR_FILENO;

    const bool isUrgent = m_trick == Trick::UrgentByte || m_trick == Trick::UrgentLingeringSocket;
    const bool isSent = m_trick == Trick::UrgentByte
                            ? ::send(STDIN_FILENO, "x", 1, MSG_OOB | MSG_NOSIGNAL) == 1
                            : passDescriptor(STDIN_FILENO, passedFD, isUrgent ? MSG_OOB : 0);
    [[maybe_unused]] const ssize_t written = ::write(STDOUT_FILENO, isSent ? "1" : "0", 1);
    ::_exit(0);
}

bool HostilePeer::play(const RawConnection& connection)
{
    int passedFD = -1;
    if (m_trick == Trick::LingeringSocket || m_trick == Trick::UrgentLingeringSocket)
        passedFD = m_lingering.emplace_back().getNear();
    auto [child, childsEnd] = makeSocketPair();
    const pid_t process = ::fork();
    if (process == 0)
    {
        keepOnly(connection.getFD(), childsEnd.get(), passedFD);
        sendFromChild();
    }
    childsEnd.close();
    // First of all: the last one to close it shall be the process that it is passed to.
    if (passedFD >= 0)
        m_lingering.back().closeNear();
    const bool isSent =
        ::send(child.get(), "", 1, MSG_NOSIGNAL) == 1 && readByte(child.get()) == '1';
    ::waitpid(process, nullptr, 0);
    return isSent;
}

::testing::AssertionResult HostilePeer::isPrompt(const std::function<void()>& call)
{
    using Clock = std::chrono::steady_clock;
    const auto begin = Clock::now();
    auto result = std::async(std::launch::async, call);
    if (result.wait_for(PromptLimit) != std::future_status::ready)
    {
        m_lingering.clear(); // lets go of what waits for it
        result.get();
        return ::testing::AssertionFailure() << "held until the peer gave up";
    }
    result.get();
    m_longest =
        std::max(m_longest, std::chrono::ceil<std::chrono::milliseconds>(Clock::now() - begin));
    ::testing::Test::RecordProperty("longest_ms", static_cast<int>(m_longest.count()));
    return ::testing::AssertionSuccess();
}

bool HostilePeer::isLockKept() const
{
    if (m_asker.get() < 0)
        return true;
    struct flock whole = {};
    whole.l_type = F_WRLCK;
    return ::fcntl(m_asker.get(), F_OFD_GETLK, &whole) == 0 && whole.l_type != F_UNLCK;
}

} // namespace vlx::testing
