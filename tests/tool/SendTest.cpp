// "vlx send": its inputs, its clocks, and what it does when something is late.

#include <algorithm>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>

#include <miscUtils/MiscUtils.hpp>
#include <vlxkit/Discovery.hpp>

#include "support/TestProvider.hpp"
#include "tool/ToolFixture.hpp"

namespace vlx::testing
{

namespace
{

using std::chrono::milliseconds;

class SendTest : public ToolTest
{
protected:
    static void SetUpTestSuite()
    {
        gst_init(nullptr, nullptr); // what it keeps is no leak of a test
    }

    std::string readText(const std::string& path) const
    {
        std::ifstream stream(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(stream), {}};
    }

    /// Runs a sender to its end into a raw recording. In a pipeline nothing is lost.
    void transfer(std::vector<std::string> input, const ToolSettings& settings = {})
    {
        ToolProcess receiver(receive({file("out.raw"), "-q", "--oneshot"}));
        input.insert(input.end(), {"--protocol", "pipeline", "--report", file("s.json")});
        ToolProcess sender(send(input), settings);
        ASSERT_EQ(sender.wait(), 0) << sender.getErrors();
        ASSERT_EQ(receiver.wait(), 0) << receiver.getErrors();
    }
};

TEST_F(SendTest, WavFromAPipeIsPlayedAndOtherFilesAreRefused)
{
    writeNoise(file("a.wav"), SF_FORMAT_WAV | SF_FORMAT_PCM_24, 3);
    writeNoise(file("a.flac"), SF_FORMAT_FLAC | SF_FORMAT_PCM_16, 1);
    ToolSettings wav, flac;
    wav.input = readText(file("a.wav"));
    flac.input = readText(file("a.flac"));
    constexpr std::size_t FirstChunk = 12;
    ToolSettings withPicture = wav;
    withPicture.input->insert(FirstChunk, "JUNK\x40\x0d\x03" + std::string(200'001, '\0'));
    for (const ToolSettings& settings : {wav, withPicture})
    {
        transfer({"-"}, settings);
        EXPECT_EQ(readJson(file("s.json"))["sample_format"], "S24LE");
        EXPECT_EQ(readJson(file("s.json"))["samples"], SourceSamples);
        const std::string samples = readText(file("out.raw"));
        EXPECT_NE(wav.input->find(samples), std::string::npos);
    }

    ToolSettings endless, unknownLength = wav;
    endless.input = "RIFF\xff\xff\xff\xffWAVEJUNK\xff\xff\xff\x7f";
    unknownLength.input->replace(unknownLength.input->find("data") + 4, 4, 4, '\0');
    expectRefusal(send({"-"}), 1, "cannot read standard input", endless);
    expectRefusal(send({"-"}), 1, "no samples follow", unknownLength);
    expectRefusal(send({"-"}), 1, "FLAC", flac);
    expectRefusal(send({"-", "-c", "1"}), 1, "leave out", wav);
    expectRefusal(send({"-"}), 1, "empty");
}

TEST_F(SendTest, FifoThatNobodyWritesToEndsAtStopAndTimeout)
{
    for (const std::string name : {"a.wav", "a.raw"})
    {
        ASSERT_EQ(::mkfifo(file(name).c_str(), 0600), 0);
        expectRefusal(send({file(name), "--timeout", "50ms"}), 3, "nothing came from");
        ToolProcess waiting(send({file(name), "-vvv"}));
        EXPECT_EQ(waiting.stop(), 128 + SIGTERM);
    }
}

TEST_F(SendTest, FilesInARowBeginASequenceWhereTheFormatChanges)
{
    writeNoise(file("a.wav"), SF_FORMAT_WAV | SF_FORMAT_PCM_16, 1);
    writeNoise(file("b.wav"), SF_FORMAT_WAV | SF_FORMAT_PCM_24, 2);
    // The name is no UTF-8 either.
    ToolProcess sender(send(
        {file("a.wav"), file("a.wav"), file("b.wav"), "--latency", "1h", "--report",
         file("\xff.json")}));
    EXPECT_EQ(sender.wait(), 0) << sender.getErrors();
    const json report = readJson(file("\xff.json"));
    EXPECT_EQ(report["samples"], 3 * SourceSamples);
    // On a busy machine there can be more runs; the last format's first one is where it began.
    const auto& runs = report["runs"];
    const auto second = std::find_if(
        runs.begin(), runs.end(), [](const json& run) { return run.contains("channels"); });
    ASSERT_NE(second, runs.end());
    EXPECT_EQ((*second)["sample"], 2 * SourceSamples);
    EXPECT_EQ((*second)["channels"], 2);
    EXPECT_GT(runs.at(0)["timestamp"], miscUtils::getMonotonicSysclockTime());
}

TEST_F(SendTest, LastFrameIsWaitedForAsLongAsItIs)
{
    ToolProcess sender(send({"--silence", "--frame", "1h", "-d", "50ms"}));
    EXPECT_EQ(sender.wait(), 0) << sender.getErrors();
}

TEST_F(SendTest, TakenNameIsReplacedByTheAlternative)
{
    ToolProcess first(send({"--tone", "1"}));
    ASSERT_TRUE(waitFor([&] { return kit::isNameTaken(getSocketName()); }));
    const std::string other = getSocketName() + "-other";
    ToolProcess second(send({"--tone", "1", "--alternative", other, "-d", "1ms"}));
    EXPECT_EQ(second.wait(), 0);
    EXPECT_NE(second.getErrors().find("sending as \"" + other), std::string::npos);
    EXPECT_EQ(first.stop(), 128 + SIGTERM);
}

TEST_F(SendTest, CatchingUpAfterAPauseLosesNothing)
{
    // A machine too busy to move frames loses some by itself: one quiet try is enough. A burst of frames
    // as large as these loses some for sure.
    constexpr int NumTries = 8;
    constexpr std::uintmax_t NumPauses = 2;
    constexpr auto Pause = milliseconds(400);
    constexpr std::uintmax_t BytesPerSample = 16; // of 8 channels
    constexpr std::uintmax_t BytesPerSecond = 96000 * BytesPerSample;
    bool nothingLost = false;
    for (int i = 0; i < NumTries && !nothingLost; ++i)
    {
        const std::string recording = file(std::to_string(i) + ".wav");
        ToolProcess receiver(receive({recording, "-q", "-d", "3s", "--report", file("r.json")}));
        ToolProcess sender(
            send({"--tone", "440", "-r", "96000", "-c", "8", "--wait-receivers", "1"}));
        for (std::uintmax_t pause = 1; pause <= NumPauses; ++pause)
        {
            // Long enough to have caught up with the pause before.
            ASSERT_TRUE(waitForSize(recording, pause * BytesPerSecond));
            sender.signal(SIGSTOP);
            std::this_thread::sleep_for(Pause); // the fault itself
            sender.signal(SIGCONT);
        }
        EXPECT_EQ(receiver.wait(), 0) << receiver.getErrors();
        EXPECT_EQ(sender.stop(), 128 + SIGTERM);
        nothingLost = readJson(file("r.json"))["connections"].at(0)["gaps"] == 0;
    }
    EXPECT_TRUE(nothingLost);
}

TEST_F(SendTest, TimestampsFollowAClockThatJumps)
{
    constexpr std::int64_t Jump = 1'000'000'000'000;
    constexpr std::int64_t Tolerance = 20'000'000;
    TestProvider provider;
    provider.start(2 * Jump);
    ToolProcess sender(send(
        {"--tone", "1", "--clock-address", provider.getAddress(), "--clock-port",
         std::to_string(provider.getPort()), "--report", file("s.json")}));
    const auto getRuns = [&]
    {
        const json report = readJson(file("s.json"));
        return report.is_object() ? report["runs"] : json();
    };
    ASSERT_TRUE(waitFor([&] { return !getRuns().empty(); })) << sender.getErrors();
    const auto begin = static_cast<std::int64_t>(miscUtils::getMonotonicSysclockTime());
    provider.stop();
    provider.start(Jump);
    const auto hasJumped = [&]
    {
        const std::int64_t time = getRuns().back()["timestamp"];
        const auto now = static_cast<std::int64_t>(miscUtils::getMonotonicSysclockTime());
        return time > begin + Jump - Tolerance && time < now + Jump + Tolerance;
    };
    EXPECT_TRUE(waitFor(hasJumped, std::chrono::seconds(30))) << getRuns();
    EXPECT_EQ(sender.stop(), 128 + SIGTERM);
    provider.stop();
}

TEST_F(SendTest, ServedClockIsAnnouncedAndAnswers)
{
    ToolProcess sender(send({"--tone", "1", "--clock", "net"}));
    const auto getInfo = [&]
    { return kit::probeSender(getSocketName(), milliseconds(500)).initialInfo; };
    ASSERT_TRUE(waitFor([&] { return getInfo().has_value(); })) << sender.getErrors();
    const auto info = getInfo();
    ASSERT_TRUE(info);
    EXPECT_EQ(info->timeSyncProtocol, TimeSyncProtocol::GstNetClock);
    ToolProcess follower(
        {"send", "-s", getSocketName() + "-2", "--tone", "1", "-d", "20ms", "--clock-address",
         info->timeSyncIPAddress, "--clock-port", std::to_string(info->timeSyncPort)});
    EXPECT_EQ(follower.wait(), 0) << follower.getErrors();
    EXPECT_EQ(sender.stop(), 128 + SIGTERM);
}

TEST_F(SendTest, ClosedStreamsCatchNoMessages)
{
    ToolSettings settings;
    settings.closed = {0, 1, 2};
    ToolProcess sender(
        send({"--tone", "1", "-d", "10ms", "-vvv", "--report", file("s.json")}), settings);
    EXPECT_EQ(sender.wait(), 0);
    EXPECT_EQ(readJson(file("s.json"))["finished"], true);

    settings.closed = {0};
    expectRefusal(send({"-", "-r", "8000"}), 2, "standard input is closed", settings);
}

} // namespace

} // namespace vlx::testing
