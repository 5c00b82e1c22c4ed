#include "Gatekeeper.hpp"

#include <vlxkit/Consumer.hpp>

#include "support/RawSender.hpp"
#include "support/VlxTest.hpp"

namespace vlx::kit
{

namespace
{

using namespace vlx::testing;
using Setback = Gatekeeper::Setback;

constexpr TimeValue Second = 1'000'000'000;
constexpr std::uint32_t Playable = 0x41414141;
constexpr std::uint32_t Unknown = 0x58585858; // "XXXX"

/// @return "KIND" of what is told, milliseconds of the pause, and what follows: "failed 20 ask"
std::string toLine(const Gatekeeper::Step& step)
{
    return (step.news ? std::string(toString(step.news->kind)) + " " : "") +
           std::to_string(step.pauseMs) + (step.joins ? " join" : " ask");
}

class GatekeeperTest : public VlxTest
{
protected:
    void SetUp() override
    {
        VlxTest::SetUp();
        const std::string directory = getTempDirectory() + "/VlxSender-gateke";
        std::filesystem::create_directory(directory);
        m_good.reached = true;
        m_good.user = ::geteuid();
        m_good.sequenceNr = 1;
        m_good.fourcc = Playable;
        m_good.initialInfo = InitialInfo{};
        m_good.initialInfo->nanomsgProtocol = NanomsgProtocol::Pipeline;
        m_good.initialInfo->nanomsgURI = "ipc://" + directory + "/nanomsgChannel.ipc";
        m_silent = m_good;
        m_silent.sequenceNr.reset();
        m_silent.fourcc.reset();
        m_closing = m_silent;
        m_closing.closedEarly = true;
        m_unknown = m_good;
        m_unknown.fourcc = Unknown;
        m_malformed.reached = true;
        m_malformed.user = ::geteuid();
        m_rude = m_malformed;
        m_rude.closedEarly = true;
        m_busy = m_malformed;
        m_busy.busy = true;
    }

    void TearDown() override
    {
        std::filesystem::remove(getTempDirectory() + "/VlxSender-gateke");
        VlxTest::TearDown();
    }

    SenderProbe m_good;
    SenderProbe m_silent;    // without a sequence
    SenderProbe m_closing;   // after the greeting
    SenderProbe m_unknown;   // codec
    SenderProbe m_malformed; // greeting
    SenderProbe m_rude;      // closes without a greeting
    SenderProbe m_busy;
    SenderProbe m_gone; // not reached
    Gatekeeper m_gate{"x", std::nullopt, [](const SenderProbe& answer) {
                          return answer.fourcc == Playable ? "" : "no codec";
                      }};
};

TEST_F(GatekeeperTest, JudgesAnswersOneAfterTheOther)
{
    const struct
    {
        const SenderProbe& answer;
        std::string line;
        TimeValue durationNs = 0;
    } rows[] = {
        {m_good, "0 join"},
        {m_silent, "0 join"},
        {m_closing, "0 join"},
        {m_gone, "0 join"},
        {m_busy, "100 ask"},
        {m_rude, "100 ask", Second}, // was stopped, and is killed
        // Five failed checks in a row, and told once.
        {m_unknown, "20 ask"},
        {m_malformed, "40 ask"},
        {m_rude, "80 ask"},
        {m_busy, "100 ask"},
        {m_unknown, "160 ask"},
        {m_unknown, "cannot play 2000 ask"},
        {m_unknown, "20 ask"},
        {m_unknown, "40 ask"},
        {m_unknown, "80 ask"},
        {m_unknown, "160 ask"},
        {m_unknown, "2000 ask"},
        // Another obstacle is news, and so is the same after the sender was gone.
        {m_malformed, "20 ask"},
        {m_malformed, "40 ask"},
        {m_malformed, "80 ask"},
        {m_malformed, "160 ask"},
        {m_malformed, "not a sender 2000 ask"},
        {m_gone, "0 join"},
        {m_malformed, "20 ask"},
        {m_good, "0 join"}, // proves nothing: others may be answered differently
        {m_malformed, "40 ask"}};
    for (std::size_t i = 0; i < std::size(rows); ++i)
        EXPECT_EQ(toLine(m_gate.judgeAnswer(rows[i].answer, rows[i].durationNs)), rows[i].line)
            << "row " << i;
}

TEST_F(GatekeeperTest, AsksAfterASetbackUntilTheSenderIsFitOrGone)
{
    EXPECT_FALSE(m_gate.mustAsk());
    for (const SenderProbe* const answer : {&m_good, &m_gone})
    {
        EXPECT_EQ(toLine(m_gate.onSetback(Setback::Doubt)), "0 ask");
        EXPECT_TRUE(m_gate.isWary());
        EXPECT_TRUE(m_gate.mustAsk());
        m_gate.judgeAnswer(m_unknown, 0);
        EXPECT_TRUE(m_gate.mustAsk());
        m_gate.judgeAnswer(*answer, 0);
        EXPECT_FALSE(m_gate.mustAsk());
        m_gate.forgetObstacles(); // a frame has come
        EXPECT_FALSE(m_gate.isWary());
    }
}

// What holds the name may answer each question well and end all other connections, or be gone
// whenever it is asked.
TEST_F(GatekeeperTest, DoubtsGrowUntilAFrameComes)
{
    const std::pair<const char*, std::string> rows[] = {
        {"0 ask", "0 join"},
        {"20 ask", "0 join"},
        {"40 ask", "0 join"},
        {"80 ask", "0 join"},
        {"160 ask", "not a sender 2000 ask"},
        {"320 ask", "4000 ask"},
        {"640 ask", "8000 ask"},
        {"1280 ask", "10000 ask"},
        {"2000 ask", "10000 ask"}};
    for (const bool isGone : {false, true})
    {
        for (const auto& [pause, line] : rows)
        {
            EXPECT_EQ(toLine(m_gate.onSetback(Setback::Doubt)), pause);
            EXPECT_EQ(
                toLine(m_gate.judgeAnswer(isGone ? m_gone : m_good, 0)), isGone ? "0 join" : line);
        }
        m_gate.forgetObstacles();
    }
}

TEST_F(GatekeeperTest, ARefusalThatAnAnswerExplainsIsForgotten)
{
    m_gate.onRefusal({ConsumerEvent::Kind::NotPermitted, "mode"});
    EXPECT_EQ(toLine(m_gate.judgeAnswer(m_malformed, 0)), "20 ask");
    EXPECT_EQ(toLine(m_gate.judgeAnswer(m_good, 0)), "0 join");
}

TEST_F(GatekeeperTest, TellsASetbackThatNoAnswerExplains)
{
    const struct
    {
        Setback setback;
        const SenderProbe& answer;
        std::string line;
        std::string pause;
        int timeoutMs = 5; // for the announcement
    } rows[] = {
        {Setback::Doubt, m_good, "0 join", "0 ask"},
        {Setback::Flapping, m_good, "not a sender 2000 ask", "20 ask", 300},
        {Setback::Flapping, m_closing, "20 ask", "40 ask", 300},
        {Setback::Flapping, m_gone, "0 join", "80 ask", 300},
        {Setback::NoChannel, m_good, "failed 2000 ask", "160 ask"},
        {Setback::NoChannel, m_good, "4000 ask", "320 ask"},
        {Setback::NoChannel, m_good, "8000 ask", "640 ask"},
        {Setback::NoChannel, m_good, "10000 ask", "1280 ask"},
        {Setback::NoChannel, m_gone, "0 join", "2000 ask"}};
    for (std::size_t i = 0; i < std::size(rows); ++i)
    {
        EXPECT_EQ(toLine(m_gate.onSetback(rows[i].setback)), rows[i].pause) << "row " << i;
        EXPECT_EQ(m_gate.getAnnouncementTimeoutMs(), rows[i].timeoutMs) << "row " << i;
        EXPECT_EQ(toLine(m_gate.judgeAnswer(rows[i].answer, 0)), rows[i].line) << "row " << i;
    }
    m_gate.reset();
    m_gate.onSetback(Setback::NoChannel);
    EXPECT_EQ(toLine(m_gate.judgeAnswer(m_gone, 0)), "failed 0 join") << "it cannot be asked";
}

TEST_F(GatekeeperTest, StartsAgainEverMoreSeldomUntilTheStreamPlays)
{
    for (const char* const line : {"failed 20 ask", "40 ask", "80 ask"})
        EXPECT_EQ(toLine(m_gate.onSetback(Setback::WorkerEnded)), line);
    EXPECT_EQ(toLine(m_gate.onFailedStart("no thread")), "failed 2000 ask");
    EXPECT_EQ(toLine(m_gate.onFailedStart("no thread")), "4000 ask");
    m_gate.forgetObstacles();
    EXPECT_EQ(toLine(m_gate.onSetback(Setback::WorkerEnded)), "failed 20 ask");
    EXPECT_EQ(toLine(m_gate.onFailedStart("no thread")), "failed 2000 ask");
}

TEST_F(GatekeeperTest, ARefusalOfTheReceiverIsToldAfterFiveChecks)
{
    for (const char* const line :
         {"20 join", "40 join", "80 join", "160 join", "not permitted 2000 ask", "0 join"})
    {
        if (std::string(line) != "0 join")
            m_gate.onRefusal({ConsumerEvent::Kind::NotPermitted, "mode"});
        EXPECT_EQ(toLine(m_gate.judgeAnswer(m_good, 0)), line);
    }
}

TEST_F(GatekeeperTest, TakesTheRightUserAndProtocolOnly)
{
    const uid_t user = ::geteuid();
    const auto isPlayable = [](const SenderProbe&) { return std::string(); };
    EXPECT_TRUE(Gatekeeper("x", user, isPlayable).judgeAnswer(m_good, 0).joins);
    Gatekeeper other("x", user + 1, isPlayable);
    const auto obstacle =
        other.judgeGreeting(m_good.initialInfo, user, checkChannel(*m_good.initialInfo, user));
    ASSERT_TRUE(obstacle);
    EXPECT_EQ(
        obstacle->text, "the sender of \"x\" runs as user " + std::to_string(user) +
                            ", not as user " + std::to_string(user + 1));
    Gatekeeper shared("x", std::nullopt, isPlayable, true);
    EXPECT_FALSE(shared.judgeAnswer(m_good, 0).joins) << "in Pipeline";
    constexpr uid_t OverflowUser = 65534; // may be any user from outside a user namespace
    EXPECT_TRUE(Gatekeeper("x", OverflowUser, isPlayable)
                    .judgeGreeting(
                        m_good.initialInfo, OverflowUser, checkChannel(*m_good.initialInfo, user)));
    EXPECT_FALSE(
        Gatekeeper("x", user, isPlayable)
            .judgeGreeting(m_good.initialInfo, user, checkChannel(*m_good.initialInfo, user)));
}

} // unnamed namespace

} // namespace vlx::kit
