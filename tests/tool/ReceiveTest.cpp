// "vlx receive" as a user runs it: what is recorded, played and said.

#include <array>
#include <cstdlib>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vlxkit/Media.hpp>
#include <vlxkit/Producer.hpp>

#include "tool/ToolFixture.hpp"

namespace vlx::testing
{

namespace
{

constexpr TimeValue FrameNs = 10'000'000;

/// Bytes in which hardly two are alike.
std::string makeNoise(std::size_t size)
{
    std::string noise;
    for (std::uint32_t value = 1; noise.size() < size; value = value * 1664525 + 1013904223)
        noise += static_cast<char>(value >> 24);
    return noise;
}

class ReceiveTest : public ToolTest
{
};

TEST_F(ReceiveTest, KilledReceiverLeavesAReadableFile)
{
    ToolProcess sender(send({"--tone", "440"}));
    for (const char* const name : {"a.wav", "a.rf64", "a.w64", "a.aiff", "a.caf", "a.au", "a.flac"})
    {
        SCOPED_TRACE(name);
        // On a busy machine lost frames would be filled, in blocks far larger than a frame.
        ToolProcess receiver(receive({file(name), "--no-fill"}));
        ASSERT_TRUE(waitForSize(file(name), 12000));
        receiver.kill();
        // Everything but what a block may have kept back.
        const std::uintmax_t size = fs::file_size(file(name));
        const std::size_t numValues = readSound(file(name)).values.size();
        EXPECT_GE(numValues, name == std::string("a.flac") ? 4096U : (size - 4096 - 1920) / 2);
    }
}

TEST_F(ReceiveTest, FullDiskKeepsWhatWasWritten)
{
    ToolProcess sender(send({"--tone", "440", "-f", "s24", "-c", "3"}));
    const ToolSettings settings = {.maxFileSize = 30001}; // no multiple of a sample
    for (const char* const name : {"a.wav", "a.aiff", "a.caf", "a.flac", "a.raw"})
    {
        SCOPED_TRACE(name);
        expectRefusal(
            receive({file(name), "-q", "--report", file("r.json")}), 1, "File too large", settings);
        if (name == std::string("a.raw"))
        {
            EXPECT_EQ(fs::file_size(file(name)), 29997U);
        }
        else
        {
            EXPECT_GE(readSound(file(name)).info.frames, readJson(file("r.json"))["samples"]);
        }
    }

    ToolProcess receiver(receive({"-"}), {.outputPath = "/dev/full"});
    EXPECT_EQ(receiver.wait(), 1);
    EXPECT_THAT(receiver.getErrors(), HasSubstr("No space left"));
    // Only the report finds no room.
    expectRefusal(
        receive({file("b.wav"), "-d", "50ms", "-q", "--report", "/dev/full"}), 1,
        "\"/dev/full\": No space left");
    EXPECT_EQ(readSound(file("b.wav")).info.frames, Rate / 20);
}

TEST_F(ReceiveTest, AnUnplayableStreamIsReportedOnce)
{
    OpusPayloader opus;
    const std::string caps = "video/x-h264, level=(string)4";
    kit::PlainPayloader video(kit::MediaFourcc, Buffer(caps.begin(), caps.end()));
    const std::string instead =
        "not PCM audio; use gst-launch-1.0 vlxsrc socket-name=\"" + getSocketName() + "\" ! ...";
    FormattedPayloader invalid(48000, 2, audioUtils::PcmFormat{99});
    FormattedPayloader tooWide(48000, 2, audioUtils::PcmFormat::F64LE);
    struct Row
    {
        Payloader& payloader;
        std::string message;
    };
    const Row rows[] = {
        {video, "its media is video/x-h264, level=4, " + instead},
        {opus, "its codec \"OPUS\""},
        {invalid, "its codec \"PCM"},
        {tooWide, "FLAC cannot hold F64LE, 48000 Hz, 2 channels"}};
    for (const Row& row : rows)
    {
        const OpenSender sender(getSocketName(), row.payloader);
        expectRefusal(receive({file("a.flac")}), 1, row.message);
    }
}

TEST_F(ReceiveTest, OddFramesAndAChangedFormatLoseNothingElse)
{
    FormattedPayloader payloader(48000, 2);
    OpenSender sender(getSocketName(), payloader, NanomsgProtocol::Pipeline);
    ToolProcess receiver(receive({file("a.wav"), "-q", "--report", file("r.json")}));
    TimeValue timestamp = 1000;
    // Until the receiver has read the announcement it refuses frames.
    do
        sender.sendMediaData(timestamp++, 1, Buffer(4));
    while (!waitForSize(file("a.wav"), 48, std::chrono::milliseconds(20)));
    for (const std::size_t size : {7U, 0U, 9U, 4U})
        sender.sendMediaData(timestamp++, 1, Buffer(size));
    payloader.setNewFormat(48000, 1, audioUtils::PcmFormat::S16LE);
    sender.startNewSequence();
    EXPECT_EQ(receiver.wait(), 1);

    const std::string errors = receiver.getErrors();
    EXPECT_THAT(errors, HasSubstr("a frame of 7 bytes"));
    EXPECT_THAT(errors, HasSubstr("to S16LE, 48000 Hz, 1 channel"));
    EXPECT_EQ(countLines(errors), 2U) << errors;
    const json report = readJson(file("r.json"));
    EXPECT_EQ(report["connections"].at(0)["odd_frames"], 2);
    EXPECT_EQ(readSound(file("a.wav")).info.frames, report["samples"]);
}

TEST_F(ReceiveTest, AReceiverThatMayNotJoinAtFirstRecordsOnceItMay)
{
    const auto other = letAnotherUserIn();
    if (!other)
        GTEST_SKIP() << "only root can run a receiver as another user";
    // It waits before there is a sender, so it joins without a look, and gets nothing.
    ToolProcess receiver(receive({"-", "--report", file("r.json")}), *other);
    ASSERT_TRUE(waitFor([&] { return fs::exists(file("r.json")); }));
    ToolProcess refusing(send({"--tone", "440", "--socket-mode", "owner"}));
    ASSERT_TRUE(waitForText(receiver, "--socket-mode"));
    EXPECT_EQ(refusing.stop(), 128 + SIGTERM);
    ToolProcess sender(send({"--tone", "440", "--socket-mode", "all"}));
    ASSERT_TRUE(waitForText(receiver, "receiving S16LE"));
    receiver.signal(SIGINT);
    EXPECT_EQ(receiver.wait(), 128 + SIGINT) << receiver.getErrors();
    EXPECT_EQ(readJson(file("r.json"))["finished"], true);
}

TEST_F(ReceiveTest, AFloodDelaysNoStop)
{
    constexpr auto MaxStopTime = std::chrono::milliseconds(500);
    constexpr auto FloodPause = std::chrono::milliseconds(1);
    constexpr int NumTries = 10; // a busy machine may hold a process up as long by itself
    FormattedPayloader payloader(8000, 1);
    OpenSender sender(getSocketName(), payloader);
    std::jthread flood(
        [&](const std::stop_token& stop)
        {
            // Pauses let the sender's listener thread answer new receivers.
            for (TimeValue time = 0; !stop.stop_requested();
                 std::this_thread::sleep_for(FloodPause))
                for (const TimeValue end = time + 100; time < end; ++time)
                    sender.sendMediaData(time, 1, Buffer(2));
        });
    bool wasPrompt = false;
    for (int i = 0; i < NumTries && !wasPrompt; ++i)
    {
        ToolProcess receiver(receive({file("a.wav"), "--report", file("r.json")}));
        ASSERT_TRUE(waitForSize(file("a.wav"), 2'000)); // the flood itself
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(receiver.stop(), 128 + SIGTERM) << receiver.getErrors();
        wasPrompt = std::chrono::steady_clock::now() - begin < MaxStopTime;
        // Nothing but rounding is filled.
        const json report = readJson(file("r.json"));
        EXPECT_NEAR(report["samples"].get<double>(), report["frames"].get<double>(), 100);
        fs::remove(file("a.wav"));
    }
    EXPECT_TRUE(wasPrompt);
}

TEST_F(ReceiveTest, OneshotEndsAlsoAfterAStall)
{
    const Arguments arguments =
        receive({file("a.wav"), "--oneshot", "--stall", "200ms", "--report", file("r.json")});
    {
        SCOPED_TRACE("the input pauses, and the sender exits");
        FormattedPayloader payloader(48000, 2);
        OpenSender sender(getSocketName(), payloader, NanomsgProtocol::Pipeline);
        ToolProcess receiver(arguments);
        TimeValue timestamp = 1000;
        do // until a recording has begun: before, the receiver may refuse frames
            sender.sendMediaData(timestamp++, 1, Buffer(1920));
        while (!waitForSize(file("a.wav"), 0, std::chrono::milliseconds(10)));
        ASSERT_TRUE(waitForText(receiver, "no frame"));
        sender.shutdownSender();
        EXPECT_EQ(receiver.wait(), 0) << receiver.getErrors();
        EXPECT_GE(readJson(file("r.json"))["stalls"], 1);
    }
    SCOPED_TRACE("the sender hangs, and is killed");
    fs::remove(file("a.wav"));
    ToolProcess sender(send({"--tone", "440"}));
    ToolProcess receiver(arguments);
    ASSERT_TRUE(waitForSize(file("a.wav"), 10000));
    sender.suspend();
    ASSERT_TRUE(waitForText(receiver, "no frame"));
    m_senderWasKilled = true;
    sender.kill();
    EXPECT_EQ(receiver.wait(), 0) << receiver.getErrors();
}

TEST_F(ReceiveTest, ClosedStandardStreamsGetNothingMixedIntoTheRecording)
{
    ToolProcess sender(send({"--tone", "440", "-c", "1"}));
    runTool(receive({file("a.wav"), "-d", "200ms", "-vvv"}), 0, {.closed = {0, 1, 2}});
    EXPECT_EQ(fs::file_size(file("a.wav")), 44U + Rate / 5 * 2);
    EXPECT_EQ(readSound(file("a.wav")).info.frames, Rate / 5);
}

TEST_F(ReceiveTest, FifoIsOpenedWithoutHanging)
{
    const std::string fifo = file("fifo");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    runTool(receive({fifo, "--raw", "--timeout", "100ms"}), 3);
    for (const int number : {SIGTERM, SIGINT})
    {
        ToolProcess stopped(receive({fifo, "--raw"}));
        stopped.signal(number);
        EXPECT_EQ(stopped.wait(), 128 + number);
    }
    expectRefusal(send({"--tone", "1", "-d", "10ms", "--report", fifo}), 1, "cannot write");

    ToolProcess sender(send({"--tone", "440"}));
    ToolProcess receiver(receive({fifo, "-t", "wav", "--timeout", "10s"}));
    const Descriptor reader(::open(fifo.c_str(), O_RDONLY | O_CLOEXEC));
    char bytes[4] = {};
    EXPECT_EQ(::read(reader.get(), bytes, sizeof(bytes)), 4);
    EXPECT_EQ(std::string(bytes, 4), "RIFF");
    EXPECT_EQ(receiver.stop(), 128 + SIGTERM);
}

TEST_F(ReceiveTest, AReaderThatIsSlowAtAStopGetsTheRest)
{
    constexpr int PipeSize = 8192;
    ToolProcess sender(send({"--tone", "440"}));
    for (const bool reads : {true, false})
    {
        SCOPED_TRACE(reads ? "slow" : "reads no more");
        const std::string fifo = file(reads ? "slow" : "still");
        ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
        const Descriptor reader(::open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        ASSERT_EQ(::fcntl(reader.get(), F_SETPIPE_SZ, PipeSize), PipeSize);
        ToolProcess receiver(receive({fifo, "--raw", "-q", "--report", file("r.json")}));
        const auto isFull = [&]
        {
            int size = 0;
            return ::ioctl(reader.get(), FIONREAD, &size) == 0 && size > PipeSize / 2;
        };
        ASSERT_TRUE(waitFor(isFull)) << receiver.getErrors();
        std::this_thread::sleep_for(std::chrono::nanoseconds(10 * FrameNs)); // frames that wait
        receiver.signal(SIGTERM);
        std::this_thread::sleep_for(std::chrono::milliseconds(50)); // so slow it is
        std::uint64_t received = 0;
        std::array<char, PipeSize> bytes{};
        EXPECT_TRUE(waitFor(
            [&]
            {
                ssize_t count = 0;
                while (reads && (count = ::read(reader.get(), bytes.data(), bytes.size())) > 0)
                    received += static_cast<std::uint64_t>(count);
                return receiver.wait(std::chrono::milliseconds(0)).has_value();
            }));
        EXPECT_EQ(receiver.wait(), reads ? 128 + SIGTERM : 1);
        EXPECT_EQ(receiver.getErrors().find("the rest is lost") == std::string::npos, reads)
            << receiver.getErrors();
        if (reads)
        {
            EXPECT_EQ(received, readJson(file("r.json"))["samples"].get<std::uint64_t>() * 4);
        }
    }
}

TEST_F(ReceiveTest, NothingIsLeftOfARecordingThatHasNotBegun)
{
    FormattedPayloader payloader(48000, 2);
    const OpenSender sender(getSocketName(), payloader, NanomsgProtocol::Pipeline);
    for (const char* const name : {"a.wav", "a.flac", "a.mp3", "a.raw"})
    {
        for (const bool exists : {false, true})
        {
            SCOPED_TRACE(name);
            if (exists)
                std::ofstream(file(name)) << "a former recording";
            ToolProcess receiver(receive({file(name), "-vvv", "--overwrite"}));
            ASSERT_TRUE(waitForText(receiver, "setting sequence nr"));
            EXPECT_EQ(receiver.stop(), 128 + SIGTERM);
            EXPECT_EQ(fs::exists(file(name)), exists);
            EXPECT_EQ(readText(file(name)), exists ? "a former recording" : "");
        }
        fs::remove(file(name));
    }
    EXPECT_TRUE(fs::is_empty(m_files));
}

TEST_F(ReceiveTest, NamesAndPathsAreBytes)
{
    runTool(
        {"receive", "-s", "\xff", file("a.wav"), "--report", file("\xff"), "--timeout", "50ms"}, 3);
    EXPECT_EQ(readJson(file("\xff"))["finished"], true);
}

TEST_F(ReceiveTest, EveryFormatArrivesBitForBitAsAWavStream)
{
    // By the name that users of other programs know, too.
    const std::pair<const char*, const char*> formats[] = {
        {"S8", "s8"},          {"U8", "U8"},       {"S16LE", "S16_LE"}, {"S16BE", "s16be"},
        {"S24LE", "S24_3LE"},  {"S24BE", "s24be"}, {"S32LE", "s32"},    {"S32BE", "pcm_s32be"},
        {"F32LE", "FLOAT_LE"}, {"F32BE", "f32be"}, {"F64LE", "f64le"},  {"F64BE", "FLOAT64_BE"}};
    for (const auto& [format, spelling] : formats)
    {
        SCOPED_TRACE(format);
        const std::string name = format;
        const auto size = static_cast<std::size_t>(std::atoi(format + 1) / 8);
        std::string expected = makeNoise(size * 1500);
        const std::string received =
            transfer({"-", "-f", spelling, "-c", "3"}, {"-", "-t", "wav"}, {.input = expected})
                .output;
        for (std::size_t i = 0; name.ends_with("BE") && i < expected.size(); i += size)
            std::reverse(
                expected.begin() + std::ptrdiff_t(i), expected.begin() + std::ptrdiff_t(i + size));
        for (std::size_t i = 0; name == "S8" && i < expected.size(); ++i)
            expected[i] = static_cast<char>(expected[i] ^ 0x80);
        const std::size_t headerSize = received.find("data") + 8; // and its length
        ASSERT_GE(received.size(), headerSize);
        EXPECT_TRUE(received.substr(headerSize) == expected);
        const std::string unknown(4, '\xff');
        EXPECT_EQ(received.substr(4, 4), unknown);
        EXPECT_EQ(received.substr(headerSize - 4, 4), unknown);
        EXPECT_EQ(received[20], name.starts_with("F") ? 3 : 1);
        EXPECT_EQ(received[22], 3);
        EXPECT_EQ(static_cast<std::size_t>(received[34]), size * 8);
    }
}

TEST_F(ReceiveTest, NoFormerRecordingIsReplacedUnlessThatIsWanted)
{
    constexpr const char* Former = "a former recording";
    for (const char* const name : {"a.wav", "b-001.wav", "b-017.wav", "b-x.wav", "100%.wav"})
        std::ofstream(file(name)) << Former;
    const auto isFormer = [&](const char* name) { return readText(file(name)) == Former; };
    expectRefusal(receive({file("a.wav")}), 1, "--overwrite");
    expectRefusal(receive({file("100%.wav")}), 1, "--overwrite");
    ToolProcess sender(send({"--tone", "440"}));
    struct Row
    {
        Arguments arguments; // behind the name
        const char* name;
        const char* file;
    };
    const Row rows[] = {
        {{"--split"}, "b.wav", "b-018.wav"},
        {{"--split", "--overwrite"}, "b.wav", "b-001.wav"},
        {{"--overwrite"}, "a.wav", "a.wav"},
        {{"--name-pattern"}, "made/c%%%%.ogg", "made/c%%.ogg"},
        {{"--name-pattern"}, "made/c%%%%.ogg", "made/c%%-001.ogg"},
        {{"--name-pattern"}, "made/c%%%%.ogg", "made/c%%-002.ogg"},
        {{}, "c.opus", "c.opus"},
        {{}, "c.mp3", "c.mp3"}};
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.file);
        const Arguments arguments = {file(row.name), "-d", "123ms", "--report", file("r.json")};
        runTool(receive(join(arguments, row.arguments)));
        EXPECT_EQ(readSound(file(row.file)).info.frames, 123 * Rate / 1000);
        EXPECT_EQ(readJson(file("r.json"))["files"], json({file(row.file)}));
    }
    EXPECT_TRUE(isFormer("b-017.wav") && isFormer("100%.wav"));
    EXPECT_FALSE(isFormer("b-001.wav") || isFormer("a.wav"));

    // One that appears while there is no sender yet stays, too.
    EXPECT_EQ(sender.stop(), 128 + SIGTERM);
    ToolProcess receiver(receive({file("d.wav"), "--report", file("d.json")}));
    ASSERT_TRUE(waitFor([&] { return fs::exists(file("d.json")); }));
    std::ofstream(file("d.wav")) << Former;
    ToolProcess another(send({"--tone", "440"}));
    EXPECT_EQ(receiver.wait(), 1);
    EXPECT_THAT(receiver.getErrors(), HasSubstr("File exists"));
    EXPECT_TRUE(isFormer("d.wav"));
}

TEST_F(ReceiveTest, AFileThatStandsUnderAGuessedNameIsLeftAlone)
{
    std::ofstream(file("victim")) << "kept";
    const pid_t last = findLatestProcess();
    for (pid_t pid = last; pid < last + 200; ++pid)
        fs::create_hard_link(file("victim"), file("a.wav.part-" + std::to_string(pid)));
    ToolProcess sender(send({"--silence"}));
    runTool(receive({file("a.wav"), "-d", "10ms"}));
    EXPECT_EQ(fs::hard_link_count(file("victim")), 201U);
    EXPECT_EQ(fs::file_size(file("victim")), 4U);
}

} // namespace

} // namespace vlx::testing
