#include "support/VlxTest.hpp"

#include <cstdlib>
#include <iterator>
#include <sstream>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

void vlx::PrintTo(NanomsgProtocol protocol, std::ostream* stream)
{
    *stream << toString(protocol);
}

namespace vlx::testing
{

namespace
{

constexpr std::chrono::milliseconds PollInterval{1};

// The program that a death test starts runs the fixture too, and never its end.
constexpr const char* DeathTestDirectoryPrefix = "death-";

// Variable of a test that runs in a process namespace of its own: its process outside.
constexpr const char* IsAlone = "VLX_TEST_ALONE";

bool isInDeathTestChild()
{
    return !GTEST_FLAG_GET(internal_run_death_test).empty();
}

std::string makeTempDirectory(std::string pattern)
{
    return ::mkdtemp(pattern.data()) != nullptr ? pattern : std::string();
}

/// @return what the descriptors of this process point to, if they have none of these flags
std::multiset<std::string> listDescriptorsWithout(int flags)
{
    std::multiset<std::string> targets;
    for (const auto& [fd, target] : listDescriptors())
    {
        if ((::fcntl(fd, F_GETFD) & flags) == 0)
            targets.insert(target);
    }
    return targets;
}

/// @return what is in the second, and not in the first
template <class Set>
Set findNew(const Set& before, const Set& now)
{
    Set added;
    std::set_difference(
        now.begin(), now.end(), before.begin(), before.end(), std::inserter(added, added.end()));
    return added;
}

} // namespace

std::map<int, std::string> listDescriptors()
{
    std::map<int, std::string> targets;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc/self/fd"))
    {
        std::error_code error;
        const std::string target = fs::read_symlink(entry.path(), error).string();
        const bool isOfIterator = target.starts_with("/proc/");
        if (!error && !isOfIterator)
            targets.emplace(std::stoi(entry.path().filename()), target);
    }
    return targets;
}

std::map<pid_t, std::string> listThreads()
{
    std::map<pid_t, std::string> threads;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc/self/task"))
    {
        std::string name;
        std::getline(std::ifstream(entry.path() / "comm"), name);
        if (!name.empty()) // otherwise it has just ended
            threads.emplace(std::stoi(entry.path().filename()), name);
    }
    return threads;
}

bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds deadline)
{
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!condition())
    {
        if (std::chrono::steady_clock::now() >= end)
            return condition();
        std::this_thread::sleep_for(PollInterval);
    }
    return true;
}

bool runInFork(const std::function<bool()>& action)
{
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(action() ? 0 : 1);
    int status = -1;
    const bool hasEnded = waitFor([&] { return ::waitpid(child, &status, WNOHANG) != 0; });
    if (!hasEnded)
    {
        ::kill(child, SIGKILL);
        ::waitpid(child, &status, 0);
    }
    return hasEnded && status == 0;
}

Buffer toBytes(const std::string& text)
{
    return Buffer(text.begin(), text.end());
}

Buffer fromHex(const std::string& digits)
{
    Buffer bytes;
    std::istringstream stream(digits);
    for (std::string group; stream >> group;)
    {
        for (std::size_t i = 0; i + 1 < group.size(); i += 2)
            bytes.push_back(static_cast<std::uint8_t>(std::stoul(group.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

std::multiset<std::string> listInheritedDescriptors()
{
    return listDescriptorsWithout(FD_CLOEXEC);
}

VlxTest::VlxTest()
{
    static int numTests = 0;
    // In a process namespace of its own every test has the same id, and names are the machine's.
    const char* const outside = std::getenv(IsAlone);
    m_socketName = "vlx-test-" + (outside != nullptr ? outside : std::to_string(::getpid())) + "-" +
                   std::to_string(++numTests);
}

void VlxTest::SetUp()
{
    if (const char* const outer = std::getenv("TMPDIR"))
        m_outerTempDirectory = outer;

    const std::string pattern = isInDeathTestChild() ? m_outerTempDirectory.value_or("/tmp") + "/" +
                                                           DeathTestDirectoryPrefix
                                                     : std::string("/tmp/vt-");
    m_tempDirectory = makeTempDirectory(pattern + "XXXXXX");
    ASSERT_FALSE(m_tempDirectory.empty()) << "no directory " << pattern;
    ::setenv("TMPDIR", m_tempDirectory.c_str(), 1);

    m_descriptorsBefore = listDescriptorsWithout(0);
    m_threadsBefore = listThreads();
}

void VlxTest::TearDown()
{
    if (m_outerTempDirectory)
        ::setenv("TMPDIR", m_outerTempDirectory->c_str(), 1);
    else
        ::unsetenv("TMPDIR");

    // Threads end, and nanomsg lets go of its descriptors, a moment after the call that asks them.
    const auto findDescriptors = [this]
    { return findNew(m_descriptorsBefore, listDescriptorsWithout(0)); };
    const auto findThreads = [this] { return findNew(m_threadsBefore, listThreads()); };
    waitFor([&] { return findDescriptors().empty() && findThreads().empty(); });
    EXPECT_THAT(findDescriptors(), IsEmpty()) << "descriptors were left open";
    EXPECT_THAT(findThreads(), IsEmpty()) << "threads were left running";

    std::error_code error;
    for (const std::string& name : listTempDirectory())
    {
        if (name.rfind(DeathTestDirectoryPrefix, 0) == 0)
            fs::remove_all(fs::path(m_tempDirectory) / name, error);
    }
    EXPECT_THAT(listTempDirectory(), IsEmpty()) << "left in the directory";
    fs::remove_all(m_tempDirectory, error);
}

bool VlxTest::runsAlone()
{
    if (std::getenv(IsAlone) != nullptr)
        return true;
    const std::string unshare = std::string("unshare --pid --fork --mount-proc --kill-child ") +
                                (::geteuid() == 0 ? "" : "--user --map-root-user ");
    if (std::system((unshare + "true").c_str()) != 0)
    {
        [] { GTEST_SKIP() << "needs a process namespace of its own"; }();
        return false;
    }
    const std::string program = std::filesystem::read_symlink("/proc/self/exe").string();
    const std::string test = ::testing::UnitTest::GetInstance()->current_test_info()->name();
    const std::string command = IsAlone + ("=" + std::to_string(::getpid()) + "a " + unshare) +
                                program + " --gtest_filter='*." + test + "'";
    EXPECT_EQ(std::system(command.c_str()), 0);
    return false;
}

std::vector<std::string> VlxTest::listTempDirectory() const
{
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator(m_tempDirectory))
        names.push_back(entry.path().filename().string());
    return names;
}

} // namespace vlx::testing
