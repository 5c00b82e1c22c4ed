// Those faults of scripts/chaos that are quick to provoke, each with processes of its own. Losses and
// times are not judged here, where other tests run beside; the script judges them.

#include <cstdlib>

#include <gtest/gtest.h>

namespace vlx::testing
{

namespace
{

class FaultTest : public ::testing::TestWithParam<const char*>
{
};

TEST_P(FaultTest, IsWithstood)
{
    const std::string command =
        std::string(VLX_STRESS_PATH) + " chaos 1 --lenient --only " + GetParam();
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
}

INSTANTIATE_TEST_SUITE_P(
    Peers,
    FaultTest,
    ::testing::Values(
        "churn",
        "silent",
        "rubbish-sidechannel",
        "rubbish-main",
        "publisher-message",
        "impostor-greeting",
        "impostor-packets"));

INSTANTIATE_TEST_SUITE_P(
    Directories,
    FaultTest,
    ::testing::Values("tmpdir-full", "tmpdir-removed"));

#ifndef VLX_SANITIZED // a sanitizer needs descriptors, threads and a file for itself
INSTANTIATE_TEST_SUITE_P(
    Resources,
    FaultTest,
    ::testing::Values(
        "descriptors-listener",
        "descriptors-rejoin",
        "threads-sender",
        "tmpdir-readonly"));
#endif

} // namespace

} // namespace vlx::testing
