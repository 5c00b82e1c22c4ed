// "vlx receive" as a user runs it: what is recorded, played and said.

#include <sys/stat.h>

#include "tool/ToolFixture.hpp"

namespace vlx::testing
{

namespace
{

class ReceiveTest : public ToolTest
{
};

TEST_F(ReceiveTest, DurationIsKeptToTheSample)
{
    ToolProcess sender(send({"--tone", "440", "-f", "s16", "-c", "1"}));
    ToolProcess receiver(receive({file("a.wav"), "-d", "123ms"}));
    ASSERT_EQ(receiver.wait(), 0) << receiver.getErrors();
    EXPECT_EQ(readSound(file("a.wav")).info.frames, 123 * Rate / 1000);
    EXPECT_EQ(sender.stop(), 128 + SIGTERM);
}

TEST_F(ReceiveTest, KilledReceiverLeavesAReadableFile)
{
    ToolProcess sender(send({"--tone", "440"}));
    for (const char* const name : {"a.wav", "a.rf64", "a.w64", "a.aiff", "a.caf", "a.au", "a.flac"})
    {
        SCOPED_TRACE(name);
        ToolProcess receiver(receive({file(name)}));
        ASSERT_TRUE(waitForSize(file(name), 12000));
        receiver.signal(SIGKILL);
        ASSERT_EQ(receiver.wait(), 128 + SIGKILL);
        // Everything but what a block may have kept back.
        const std::uintmax_t size = fs::file_size(file(name));
        const std::size_t numValues = readSound(file(name)).values.size();
        EXPECT_GE(numValues, name == std::string("a.flac") ? 4096U : (size - 4096 - 1920) / 2);
    }
    EXPECT_EQ(sender.stop(), 128 + SIGTERM);
}

TEST_F(ReceiveTest, FullDiskKeepsWhatWasWritten)
{
    ToolProcess sender(send({"--tone", "440", "-f", "s24", "-c", "3"}));
    ToolSettings settings;
    settings.maxFileSize = 30001; // no multiple of a sample
    for (const char* const name : {"a.wav", "a.aiff", "a.caf", "a.flac", "a.raw"})
    {
        SCOPED_TRACE(name);
        ToolProcess receiver(receive({file(name), "-q", "--report", file("r.json")}), settings);
        EXPECT_EQ(receiver.wait(), 1);
        EXPECT_EQ(countLines(receiver.getErrors()), 1U) << receiver.getErrors();
        EXPECT_NE(receiver.getErrors().find("File too large"), std::string::npos);
        if (name == std::string("a.raw"))
        {
            EXPECT_EQ(fs::file_size(file(name)), 29997U);
        }
        else
        {
            EXPECT_GE(readSound(file(name)).info.frames, readJson(file("r.json"))["samples"]);
        }
    }

    ToolSettings full;
    full.outputPath = "/dev/full";
    ToolProcess receiver(receive({"-"}), full);
    EXPECT_EQ(receiver.wait(), 1);
    EXPECT_NE(receiver.getErrors().find("No space left"), std::string::npos);
    EXPECT_EQ(sender.stop(), 128 + SIGTERM);
}

TEST_F(ReceiveTest, RecordingGoesOnWhenTheSenderComesBack)
{
    m_senderWasKilled = true;
    for (const bool fill : {true, false})
    {
        const std::string path = file(fill ? "filled.wav" : "joined.wav");
        std::vector<std::string> arguments = {path, "--report", file("r.json")};
        if (!fill)
            arguments.emplace_back("--no-fill");
        ToolProcess receiver(receive(arguments));
        for (int i = 0; i < 3; ++i)
        {
            std::error_code error;
            const std::uintmax_t size = i == 0 ? 0 : fs::file_size(path, error);
            ToolProcess sender(send({"--tone", "440"}));
            ASSERT_TRUE(waitForSize(path, size + 20000));
            sender.signal(SIGKILL);
            sender.wait();
        }
        EXPECT_EQ(receiver.stop(), 128 + SIGTERM);

        const json report = readJson(file("r.json"));
        ASSERT_EQ(report["connections"].size(), 3U);
        EXPECT_GE(report["gaps"], 2);
        EXPECT_EQ(readSound(path).info.frames, report["samples"]);
        const std::int64_t begin = report["connections"][0]["first_timestamp"];
        std::int64_t recorded = 0;
        for (const json& connection : report["connections"])
        {
            for (const json& segment : connection["segments"])
            {
                // Filled, the place of each stretch is its time.
                const std::int64_t ns = segment["timestamp"].get<std::int64_t>() - begin;
                const std::int64_t place = fill ? ns * Rate / 1'000'000'000 : recorded;
                EXPECT_LE(
                    std::abs(segment["file_sample"].get<std::int64_t>() - place), fill ? 2 : 0);
                recorded += segment["samples"].get<std::int64_t>();
            }
        }
        const std::string said = receiver.getErrors();
        for (const char* const part :
             {"receiving S16LE", "lost", "the sender is back", " gaps of "})
            EXPECT_NE(said.find(part), std::string::npos) << part << " in " << said;
    }
}

TEST_F(ReceiveTest, OneshotEndsWithTheSender)
{
    ToolProcess receiver(receive({file("a.wav"), "--oneshot"}));
    ToolProcess sender(send({"--tone", "440"}));
    ASSERT_TRUE(waitForSize(file("a.wav"), 10000));
    sender.signal(SIGKILL);
    m_senderWasKilled = true;
    EXPECT_EQ(receiver.wait(), 0) << receiver.getErrors();
}

TEST_F(ReceiveTest, StalledReceiverJoinsAgain)
{
    ToolProcess receiver(receive({file("a.wav"), "--stall", "200ms", "--report", file("r.json")}));
    ToolProcess sender(send({"--tone", "440"}));
    ASSERT_TRUE(waitForSize(file("a.wav"), 10000));
    sender.signal(SIGSTOP);
    ASSERT_TRUE(waitFor([&] { return countLines(receiver.getErrors()) > 1; }));
    sender.signal(SIGCONT);
    ASSERT_TRUE(waitForSize(file("a.wav"), fs::file_size(file("a.wav")) + 20000));
    EXPECT_EQ(receiver.stop(), 128 + SIGTERM);
    EXPECT_EQ(sender.stop(), 128 + SIGTERM);

    const json report = readJson(file("r.json"));
    EXPECT_GE(report["stalls"], 1);
    EXPECT_EQ(report["connections"].at(0)["ended"], "stall");
    EXPECT_EQ(report["connections"].at(1)["joined_after"], "stall");
    EXPECT_EQ(countLines(receiver.getErrors()), 4U) << receiver.getErrors();
}

TEST_F(ReceiveTest, WhatCannotBePlayedIsSaidOnce)
{
    OpusPayloader opus;
    PcmPayloader invalid, tooWide;
    invalid.setNewFormat(48000, 2, static_cast<audioUtils::PcmFormat>(99));
    tooWide.setNewFormat(48000, 2, audioUtils::PcmFormat::F64LE);
    struct Row
    {
        Payloader& payloader;
        const char* message;
    };
    const Row rows[] = {
        {opus, "cannot play codec \"OPUS\""},
        {invalid, "PCM format that is none"},
        {tooWide, "FLAC cannot hold F64LE, 48000 Hz, 2 channels"}};
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.message);
        Sender sender;
        startSender(sender, row.payloader);
        ToolProcess receiver(receive({file("a.flac"), "-q"}));
        EXPECT_EQ(receiver.wait(), 1);
        EXPECT_NE(receiver.getErrors().find(row.message), std::string::npos)
            << receiver.getErrors();
        EXPECT_EQ(countLines(receiver.getErrors()), 1U) << receiver.getErrors();
        sender.shutdownSender();
    }
}

TEST_F(ReceiveTest, OddFramesAndAChangedFormatLoseNothingElse)
{
    PcmPayloader payloader;
    payloader.setNewFormat(48000, 2, audioUtils::PcmFormat::S16LE);
    Sender sender;
    startSender(sender, payloader, NanomsgProtocol::Pipeline);
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
    sender.shutdownSender();

    const std::string errors = receiver.getErrors();
    EXPECT_NE(errors.find("a frame of 7 bytes"), std::string::npos) << errors;
    EXPECT_NE(errors.find("to S16LE, 48000 Hz, 1 channel"), std::string::npos) << errors;
    EXPECT_EQ(countLines(errors), 2U) << errors;
    const json report = readJson(file("r.json"));
    EXPECT_EQ(report["connections"].at(0)["odd_frames"], 2);
    EXPECT_EQ(readSound(file("a.wav")).info.frames, report["samples"]);
}

TEST_F(ReceiveTest, StrangerOnTheNameIsLeftAlone)
{
    std::atomic<int> numConnections = 0;
    std::atomic<bool> keepRunning = true;
    RawSidechannelServer stranger(getSocketName());
    std::thread closer(
        [&]
        {
            while (keepRunning)
            {
                if (stranger.accept(std::chrono::milliseconds(20)).isOpen())
                    ++numConnections;
            }
        });
    ToolProcess receiver(receive({file("a.wav"), "--timeout", "10s"}));
    ASSERT_TRUE(waitFor([&] { return countLines(receiver.getErrors()) > 0; }));
    EXPECT_NE(receiver.getErrors().find("ends every connection"), std::string::npos);
    const int before = numConnections;
    EXPECT_EQ(receiver.stop(), 128 + SIGTERM);
    EXPECT_LE(numConnections - before, 2) << "still connecting while it pauses";
    keepRunning = false;
    closer.join();
    stranger.close();
}

} // namespace

} // namespace vlx::testing
