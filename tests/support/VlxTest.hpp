#pragma once

// What nearly every test uses comes with the fixture.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vlx/SideChannel.hpp>
#include <vlx/VlxTypes.hpp>

#include "support/LogCapture.hpp"

namespace vlx
{

/// Lets the test framework show a protocol by its name.
void PrintTo(NanomsgProtocol protocol, std::ostream* stream);

} // namespace vlx

namespace vlx::testing
{

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using ::testing::_;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::SizeIs;
using ::testing::StartsWith;

/// Generous, since a busy machine under a sanitizer is slow; only a failing test waits this long.
/// On a busy machine the kernel alone can take 13 seconds to close an inotify descriptor, which
/// each receiver has, and holds up all processes that close one.
inline constexpr std::chrono::seconds DefaultDeadline{30};

/// Waits until a condition holds.
///
/// @param condition  called again and again, from the calling thread
/// @return whether it held before the deadline
bool waitFor(
    const std::function<bool()>& condition,
    std::chrono::milliseconds deadline = DefaultDeadline);

/// Runs an action in a forked child, which ends without running any destructor.
///
/// @return whether the child ended by itself before the deadline, and the action returned true
bool runInFork(const std::function<bool()>& action);

/// @return the bytes of a text
Buffer toBytes(const std::string& text);

/// @param digits  two hexadecimal digits per byte; spaces are ignored
Buffer fromHex(const std::string& digits);

/// @return what each descriptor of this process points to
std::map<int, std::string> listDescriptors();

/// @return the names of the threads of this process
std::map<pid_t, std::string> listThreads();

/// @return what the descriptors point to that a program started now would get
std::multiset<std::string> listInheritedDescriptors();

/// Expects a statement to stop the process by the assertion with exactly this expression.
#define EXPECT_ASSERTION(statement, expression)                                                    \
    EXPECT_EXIT(                                                                                   \
        statement, ::testing::KilledBySignal(SIGABRT),                                             \
        ::testing::HasSubstr("Assertion `" expression "' failed"))

/// Base of all tests that open anything: a short private directory in "TMPDIR", a socket name that
/// no other test has, and at the end the check that no descriptor, thread or file has been left.
///
/// What a test opens it closes in its body, since the check runs before members are destroyed.
class VlxTest : public ::testing::Test
{
protected:
    VlxTest();

    void SetUp() override;
    void TearDown() override;

    /// @return the directory that "TMPDIR" names
    const std::string& getTempDirectory() const
    {
        return m_tempDirectory;
    }

    /// @return a name for the abstract socket namespace; always the same within a test
    const std::string& getSocketName() const
    {
        return m_socketName;
    }

    /// @return names of what is in the private directory
    std::vector<std::string> listTempDirectory() const;

    /// Runs the current test once more in a process namespace of its own, for a test that no other
    /// process may disturb: a sender in another network namespace, or one that stands still, puts
    /// every directory of its user in doubt.
    ///
    /// @return whether this is that run. Otherwise the test is over: its result has been taken
    ///         over, or it is skipped because this user can have no such namespace
    static bool runsAlone();

    static LogCapture& log()
    {
        return LogCapture::get();
    }

private:
    std::string m_tempDirectory;
    std::string m_socketName;
    std::optional<std::string> m_outerTempDirectory; // value of TMPDIR before
    std::multiset<std::string> m_descriptorsBefore;  // what they point to
    std::map<pid_t, std::string> m_threadsBefore;
};

} // namespace vlx::testing
