#pragma once

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

/// Base of all tests of shared memory. They have a private /dev/shm, so that not even a failing
/// test touches files of other programs, and leave nothing there.
class SharedMemoryTest : public VlxTest
{
protected:
    void SetUp() override
    {
        VlxTest::SetUp();
        static const bool isOwn = leaveMountNamespace();
        if (!isOwn || !mountMemory("mode=1777"))
            GTEST_SKIP() << "only root can mount a private /dev/shm";
    }

    void TearDown() override
    {
        if (!IsSkipped())
        {
            EXPECT_THAT(listMemory(), IsEmpty()) << "left in shared memory";
        }
        VlxTest::TearDown();
    }

    /// Mounts another /dev/shm for the calling thread and those that it starts.
    static bool mountMemory(const char* options)
    {
        return ::mount("tmpfs", "/dev/shm", "tmpfs", 0, options) == 0;
    }

    /// Makes later mounts visible only to the calling thread and what it starts.
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
