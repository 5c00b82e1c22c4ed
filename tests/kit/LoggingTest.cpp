// The log of library and kit, handed to a function or printed on standard error.

#include <atomic>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>
#include <log4cplus/nullappender.h>
#include <sys/wait.h>
#include <unistd.h>

#include <vlxkit/Logging.hpp>

namespace vlx::kit
{

namespace
{

using ::testing::ElementsAre;

class LoggingTest : public ::testing::Test
{
protected:
    void logEach() // at every level
    {
        LOG4CPLUS_TRACE(m_library, "trace");
        LOG4CPLUS_DEBUG(m_library, "debug");
        LOG4CPLUS_INFO(m_kit, "info");
        LOG4CPLUS_WARN(m_kit, "warning");
        LOG4CPLUS_ERROR(m_library, "error");
        LOG4CPLUS_FATAL(m_library, "fatal");
    }

    log4cplus::Logger m_library = log4cplus::Logger::getInstance("Vellox");
    log4cplus::Logger m_kit = log4cplus::Logger::getInstance("Vellox.Kit");
};

TEST_F(LoggingTest, EachListenerGetsItsLevels)
{
    const log4cplus::LogLevel before = m_library.getLogLevel();
    std::vector<std::string> few;
    std::vector<std::string> all;
    std::string formatted;
    {
        LogListener warnings(
            LogLevel::Warning,
            [&](const LogLine& line) { few.push_back(line.logger + ": " + line.text); });
        EXPECT_TRUE(isLogReceived());
        {
            const LogListener everything(
                LogLevel::Trace,
                [&](const LogLine& line)
                {
                    all.push_back(line.text);
                    if (line.level == LogLevel::Warning)
                        formatted = toText(line);
                });
            logEach();
        }
        EXPECT_THAT(
            formatted, ::testing::MatchesRegex(
                           "[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} WARN  \\[Vellox.Kit\\] warning"));
        EXPECT_THAT(all, ElementsAre("trace", "debug", "info", "warning", "error", "fatal"));
        EXPECT_THAT(few, ElementsAre("Vellox.Kit: warning", "Vellox: error", "Vellox: fatal"));
        // The log of the test itself stays as configured.
        EXPECT_TRUE(m_library.isEnabledFor(log4cplus::TRACE_LOG_LEVEL));
        warnings.setLevel(LogLevel::Error);
        few.clear();
        logEach();
        EXPECT_THAT(few, ElementsAre("Vellox: error", "Vellox: fatal"));
        EXPECT_EQ(all.size(), 6U);
    }
    EXPECT_EQ(m_library.getLogLevel(), before);
}

TEST_F(LoggingTest, WithoutAnotherLogLinesOfOtherLevelsAreNotMade)
{
    log4cplus::Logger root = log4cplus::Logger::getRoot();
    const auto ofRoot = root.getAllAppenders();
    const auto ofLibrary = m_library.getAllAppenders();
    root.removeAllAppenders();
    m_library.removeAllAppenders();
    {
        const LogListener silence(LogLevel::Error, nullptr);
        EXPECT_FALSE(isLogReceived());
    }
    {
        LogListener listener(LogLevel::Warning, [](const LogLine&) {});
        EXPECT_TRUE(isLogReceived());
        EXPECT_FALSE(m_library.isEnabledFor(log4cplus::INFO_LOG_LEVEL));
        EXPECT_TRUE(m_kit.isEnabledFor(log4cplus::WARN_LOG_LEVEL));
        listener.setLevel(LogLevel::Debug);
        EXPECT_TRUE(m_library.isEnabledFor(log4cplus::DEBUG_LOG_LEVEL));
    }
    EXPECT_FALSE(isLogReceived());
    for (const log4cplus::SharedAppenderPtr& appender : ofRoot)
        root.addAppender(appender);
    for (const log4cplus::SharedAppenderPtr& appender : ofLibrary)
        m_library.addAppender(appender);
}

TEST_F(LoggingTest, NoCallOutlivesItsListener)
{
    std::atomic<bool> isOver = false;
    std::thread logging(
        [&]
        {
            while (!isOver)
                logEach();
        });
    for (int i = 0; i < 200; ++i)
    {
        std::atomic<bool> mayCall = true;
        std::atomic<int> calls = 0;
        {
            const LogListener listener(
                LogLevel::Error,
                [&](const LogLine&)
                {
                    EXPECT_TRUE(mayCall);
                    ++calls;
                });
            while (calls == 0)
                std::this_thread::yield();
        }
        mayCall = false;
    }
    isOver = true;
    logging.join();
}

TEST_F(LoggingTest, PrintsTheLibrarysLinesOnceAndUndoesWhatItChanged)
{
    const log4cplus::Logger part = log4cplus::Logger::getInstance("Vellox.Part");
    const log4cplus::Logger other = log4cplus::Logger::getInstance("Other");
    const log4cplus::LogLevel levelBefore = m_library.getLogLevel();
    const std::size_t numAppenders = m_library.getAllAppenders().size();
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
        EXPECT_EQ(m_library.getLogLevel(), levelBefore);
        EXPECT_EQ(m_library.getAllAppenders().size(), numAppenders);
    }

    {
        const Logging logging;
        m_library.setLogLevel(log4cplus::ERROR_LOG_LEVEL);
        const Logging another;
    }
    EXPECT_EQ(m_library.getLogLevel(), log4cplus::ERROR_LOG_LEVEL)
        << "the program has set it since";
}

TEST_F(LoggingTest, AForkedChildWaitsForNoThread)
{
    const pid_t child = ::fork();
    if (child == 0)
    {
        ::alarm(20);
        log4cplus::Logger::getRoot().removeAllAppenders();
        m_library.removeAllAppenders();
        endLogThreads();
        ::_exit(0);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

TEST_F(LoggingTest, TheThreadsOfAProgramsOwnLogStay)
{
    endLogThreads();
    EXPECT_TRUE(isLogReceived()) << "the program's appenders are gone";

    log4cplus::Logger::getRoot().removeAllAppenders();
    m_library.removeAllAppenders();
    for (const char* const name : {"Vellox.Kit", "VelloxPlayer"})
    {
        log4cplus::Logger logger = log4cplus::Logger::getInstance(name);
        const log4cplus::SharedAppenderPtr appender(new log4cplus::NullAppender);
        logger.addAppender(appender);
        endLogThreads();
        EXPECT_EQ(logger.getAllAppenders().size(), 1U) << name;
        logger.removeAppender(appender);
    }
}

} // unnamed namespace

} // namespace vlx::kit
