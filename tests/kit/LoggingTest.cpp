// The library's log on standard error, for a program without a logging of its own.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

#include <vlxkit/Logging.hpp>

namespace vlx::kit
{

namespace
{

TEST(LoggingTest, PrintsTheLibrarysLinesOnceAndUndoesWhatItChanged)
{
    log4cplus::Logger library = log4cplus::Logger::getInstance("Vellox");
    const log4cplus::Logger part = log4cplus::Logger::getInstance("Vellox.Part");
    const log4cplus::Logger other = log4cplus::Logger::getInstance("Other");
    const log4cplus::LogLevel levelBefore = library.getLogLevel();
    const std::size_t numAppenders = library.getAllAppenders().size();
    const auto logAll = [&](const std::string& when)
    {
        LOG4CPLUS_WARN(part, when << " warning");
        LOG4CPLUS_DEBUG(part, when << " debug");
        LOG4CPLUS_ERROR(other, when << " other");
    };
    for (int round = 0; round < 2; ++round)
    {
        ::testing::internal::CaptureStderr();
        {
            const Logging outer;
            logAll("outer");
            {
                const Logging inner(LogLevel::Debug);
                logAll("inner");
            }
            logAll("again");
        }
        logAll("after");
        std::string lines;
        std::istringstream text(::testing::internal::GetCapturedStderr());
        for (std::string line; std::getline(text, line);)
        {
            const std::size_t name = line.find(" [Vellox.Part] ");
            if (name != std::string::npos)
                lines += line.substr(name + 15) + "; ";
            EXPECT_EQ(line.find("[Other]"), std::string::npos) << line;
        }
        EXPECT_EQ(lines, "outer warning; inner warning; inner debug; again warning; ") << round;
        EXPECT_EQ(library.getLogLevel(), levelBefore);
        EXPECT_EQ(library.getAllAppenders().size(), numAppenders);
    }
}

} // unnamed namespace

} // namespace vlx::kit
