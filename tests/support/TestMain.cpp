#include <iostream>

#include <gmock/gmock.h>

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
    // Programs with threads cannot use the default, which only forks.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    testing::InitGoogleMock(&argc, argv);
    // The framework owns the listener from here on.
    testing::UnitTest::GetInstance()->listeners().Append(new PrintLogOfFailedTest);
    vlx::testing::LogCapture::install();
    return RUN_ALL_TESTS();
}
