#pragma once

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include <sched.h>
#include <sys/mount.h>

#include "support/VlxTest.hpp"

namespace vlx::testing
{

/// @return a frame that is filled with its number
inline Buffer makeFrame(std::size_t size, std::uint64_t number)
{
    return Buffer(size, static_cast<std::uint8_t>(number));
}

/// Base of all tests of shared memory. They have a /dev/shm of their own, so that not even a failing
/// one touches what belongs to another program, and leave nothing there.
class SharedMemoryTest : public VlxTest
{
protected:
    void SetUp() override
    {
        VlxTest::SetUp();
        static const bool isOwn = leaveMountNamespace();
        if (!isOwn || !mountMemory("mode=1777"))
            GTEST_SKIP() << "only root can have a /dev/shm of its own";
    }

    void TearDown() override
    {
        if (!IsSkipped())
        {
            EXPECT_THAT(listMemory(), ::testing::IsEmpty()) << "left in shared memory";
        }
        VlxTest::TearDown();
    }

    /// Lets the calling thread, and those that it starts, see another /dev/shm.
    static bool mountMemory(const char* options)
    {
        return ::mount("tmpfs", "/dev/shm", "tmpfs", 0, options) == 0;
    }

    /// Lets the calling thread mount what only it sees, and what it starts.
    static bool leaveMountNamespace()
    {
        return ::unshare(CLONE_NEWNS) == 0 &&
               ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    }

    /// @return names of the files in shared memory, in order
    static std::vector<std::string> listMemory()
    {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator("/dev/shm"))
            names.push_back(entry.path().filename().string());
        std::ranges::sort(names);
        return names;
    }
};

} // namespace vlx::testing
