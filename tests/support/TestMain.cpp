#include <algorithm>
#include <iostream>
#include <string_view>

#include <gmock/gmock.h>
#include <sys/resource.h>

#include "support/LogCapture.hpp"

namespace
{

/// Shows the library's log of a test that failed, and nothing of the others.
class PrintLogOfFailedTest : public testing::EmptyTestEventListener
{
    void OnTestStart(const testing::TestInfo& /*test*/) override
    {
        vlx::testing::LogCapture::get().clear();
    }

    void OnTestEnd(const testing::TestInfo& test) override
    {
        if (!test.result()->Failed())
            return;
        std::cout << "Log of " << test.test_suite_name() << '.' << test.name() << ":\n";
        for (const vlx::testing::LogEntry& entry : vlx::testing::LogCapture::get().getEntries())
            std::cout << "  " << entry << '\n';
    }
};

} // namespace

int main(int argc, char** argv)
{
    // The child of a death test ends as it should: it leaves no core dump to look into.
    const bool isExpectedToDie = std::any_of(
        argv, argv + argc,
        [](std::string_view argument)
        { return argument.starts_with("--gtest_internal_run_death_test"); });
    const rlimit none = {};
    if (isExpectedToDie)
        ::setrlimit(RLIMIT_CORE, &none);

    // Programs with threads cannot use the default, which only forks.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    testing::InitGoogleMock(&argc, argv);
    // The framework owns the listener from here on.
    testing::UnitTest::GetInstance()->listeners().Append(new PrintLogOfFailedTest);
    vlx::testing::LogCapture::install();
    return RUN_ALL_TESTS();
}
