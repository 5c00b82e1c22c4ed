// "vlx send": its inputs, its clocks, and what it does when something is late.

#include <fcntl.h>
#include <sys/stat.h>

#include <miscUtils/MiscUtils.hpp>

#include "audio/AudioInput.hpp"
#include "common/StopSignal.hpp"
#include "support/TestProvider.hpp"
#include "tool/ToolFixture.hpp"

namespace vlx::testing
{

namespace
{

class SendTest : public ToolTest
{
};

/// @return a number in little-endian bytes
std::string toBytes(std::uint64_t number, int size)
{
    std::string bytes;
    for (int i = 0; i < size; ++i)
        bytes += static_cast<char>(i < 8 ? number >> (8 * i) : 0);
    return bytes;
}

TEST_F(SendTest, OnlyTheSamplesOfAWavFileAreSent)
{
    const std::string samples = "samples of three bytes each."; // and one byte more
    const std::string whole = samples.substr(0, samples.size() - samples.size() % 3);
    const std::string format = "fmt " + toBytes(16, 4) + toBytes(1, 2) + toBytes(1, 2) +
                               toBytes(8000, 4) + toBytes(24000, 4) + toBytes(3, 2) +
                               toBytes(24, 2);
    const std::string list = "LIST" + toBytes(6, 4) + "what's";
    const std::string picture = "JUNK" + toBytes(200'001, 4) + std::string(200'002, 'j');
    const auto ds64 = [](std::uint64_t length)
    { return "ds64" + toBytes(28, 4) + toBytes(1000, 8) + toBytes(length, 8) + toBytes(0, 12); };
    struct Row
    {
        const char* name;
        std::string begin;        // of the file
        std::uint64_t fileLength; // behind itself, as the header says
        std::string chunks;       // before the format
        std::uint64_t length;     // of the samples, as the header says
        std::string rest;         // all that follows
        std::string expected;
    };
    const std::uint64_t size = samples.size();
    constexpr std::uint64_t Most = 0xFFFF'FFFF;
    const Row rows[] = {
        {"finished", "RIFF", 36 + 27, "", 27, whole, whole},
        {"chunks around", "RIFF", 9999, picture, 27, whole + toBytes(0, 1) + list, whole},
        {"an incomplete sample", "RIFF", 9999, "", size, samples + list, whole},
        {"no length", "RIFF", 36, "", 0, samples, whole},
        {"no lengths", "RIFF", 0, "", 0, samples, whole},
        {"no samples", "RIFF", 36 + list.size(), "", 0, list, ""},
        {"sox", "RIFF", 0x7FFF'F024, "", 0x7FFF'F000, samples, whole},
        {"the least of these", "RIFF", 0x7FFF'0024, "", 0x7FFF'0000, samples, whole},
        {"ffmpeg", "RIFF", Most, "", Most, samples, whole},
        {"long", "RF64", Most, ds64(27), Most, whole + list, whole},
        {"long, no length", "RF64", Most, ds64(0), Most, samples, whole},
        {"cut off", "RIFF", 9999, "", 9000, samples, whole}};
    tool::blockStopSignals();
    const tool::StopSignal stop;
    for (const Row& row : rows)
    {
        const std::string content = row.begin + toBytes(row.fileLength, 4) + "WAVE" + row.chunks +
                                    format + "data" + toBytes(row.length, 4) + row.rest;
        for (const bool piped : {false, true})
        {
            SCOPED_TRACE(std::string(row.name) + (piped ? ", piped" : ", a file"));
            const std::string path = file(piped ? "fifo" : "a.wav");
            fs::remove(path);
            ASSERT_TRUE(!piped || ::mkfifo(path.c_str(), 0600) == 0);
            std::thread writer([&] { std::ofstream(path, std::ios::binary) << content; });
            if (!piped)
                writer.join();
            const auto input = tool::openInput(path, {}, stop);
            Buffer bytes;
            std::string read;
            while (input->read(bytes, 4) > 0)
                read.append(bytes.begin(), bytes.end());
            EXPECT_EQ(read, row.expected);
            EXPECT_EQ(input->getProblem(), "");
            EXPECT_EQ(input->getFormat().sampleFormat, audioUtils::PcmFormat::S24LE);
            EXPECT_EQ(input->rewind(), !piped);
            EXPECT_EQ(input->read(bytes, 1), !piped && !row.expected.empty() ? 1U : 0U);
            if (piped)
                writer.join();
        }
    }
}

TEST_F(SendTest, WavFromAPipeIsSentAndOtherInputIsRefused)
{
    writeNoise(file("a.wav"), SF_FORMAT_WAV | SF_FORMAT_PCM_24, 3);
    writeNoise(file("a.flac"), SF_FORMAT_FLAC | SF_FORMAT_PCM_16, 1);
    writeNoise(file("a.aiff"), SF_FORMAT_AIFF | SF_FORMAT_PCM_16, 1);
    writeNoise(file("ulaw.wav"), SF_FORMAT_WAV | SF_FORMAT_ULAW, 1);
    const ToolSettings flac = {.input = readText(file("a.flac"))};
    const ToolSettings aiff = {.input = readText(file("a.aiff"))};
    const ToolSettings ulaw = {.input = readText(file("ulaw.wav"))};
    const ToolSettings film = {.input = toBytes(32, 4) + "ftypisom" + std::string(1000, 'x')};
    const ToolSettings endless = {.input = "RIFF\xff\xff\xff\xffWAVEJUNK\xff\xff\xff\x7f"};
    ToolSettings wav = {.input = readText(file("a.wav"))};
    const std::string samples =
        transfer({"-", "--report", file("s.json")}, {"-", "-q"}, wav).output;
    EXPECT_EQ(readJson(file("s.json"))["sample_format"], "S24LE");
    EXPECT_EQ(readJson(file("s.json"))["samples"], SourceSamples);
    EXPECT_TRUE(wav.input.ends_with(samples) && samples.size() == SourceSamples * 3 * 3);

    expectRefusal(send({"-", "-c", "1"}), 1, "leave out", wav);
    wav.input.resize(wav.input.size() - 100);
    EXPECT_THAT(runTool(send({"-"}), 0, wav).errors, HasSubstr("is cut off: 100 bytes"));
    expectRefusal(send({"-"}), 1, "cannot read standard input", endless);
    expectRefusal(send({"-"}), 1, "compressed", ulaw);
    expectRefusal(send({"-"}), 1, "contains FLAC audio", flac);
    expectRefusal(send({"-", "-c", "1"}), 1, "contains AIFF audio: leave out -f", aiff);
    expectRefusal(send({"-"}), 2, "with -f, -r and -c", film);
}

/// A FIFO from whose other end the tool reads.
class FifoWriter
{
public:
    explicit FifoWriter(const std::string& path, int size)
    {
        EXPECT_EQ(::mkfifo(path.c_str(), 0600), 0);
        m_fd = Descriptor(::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
        EXPECT_GE(::fcntl(m_fd.get(), F_SETPIPE_SZ, size), size);
    }

    /// @return whether it found room at once
    bool write(const std::string& bytes) const
    {
        const auto tryWrite = [&]
        { return ::write(m_fd.get(), bytes.data(), bytes.size()) == ssize_t(bytes.size()); };
        const bool hasRoom = tryWrite();
        EXPECT_TRUE(hasRoom || waitFor(tryWrite));
        return hasRoom;
    }

private:
    Descriptor m_fd;
};

TEST_F(SendTest, AWriterIsNeverHeldUpByASmallPipe)
{
    constexpr auto PieceLength = std::chrono::milliseconds(20);
    constexpr int NumPieces = 75;
    const std::string piece(
        std::size_t{Rate} / 50 * 4, '\1'); // it fits in when the pipe is almost empty
    const FifoWriter fifo(file("fifo"), 4096);
    ToolProcess sender(send({file("fifo"), "-f", "s16", "--report", file("s.json")}));
    int numHeld = 0;
    ASSERT_TRUE(fifo.write(piece));
    fifo.write(piece); // it finds room once the sender reads
    auto due = std::chrono::steady_clock::now();
    for (int i = 0; i < NumPieces; ++i)
    {
        std::this_thread::sleep_until(due += PieceLength); // the pace of a live source
        numHeld += fifo.write(piece) ? 0 : 1;
    }
    // On a busy machine it is now and then.
    EXPECT_LT(numHeld, NumPieces / 5);
    EXPECT_EQ(sender.stop(), 128 + SIGTERM);
    EXPECT_LT(std::abs(readJson(file("s.json"))["speed_ppm"].get<double>()), 2500);
}

TEST_F(SendTest, InputThatIsAlwaysReadyIsStampedExactly)
{
    const FifoWriter fifo(file("fifo"), 1 << 16);
    ToolProcess sender(send({file("fifo"), "-f", "s16", "-d", "2s", "--report", file("s.json")}));
    std::jthread writer(
        [&](const std::stop_token& stop)
        {
            while (!stop.stop_requested())
                fifo.write(std::string(4096, '\1'));
        });
    EXPECT_EQ(sender.wait(), 0) << sender.getErrors();
    writer.request_stop();
    const Descriptor reader(::open(file("fifo").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    std::string rest(1 << 16, '\0');
    EXPECT_GT(::read(reader.get(), rest.data(), rest.size()), 0); // frees the writer
    writer.join();
    const json report = readJson(file("s.json"));
    EXPECT_EQ(report["samples"], 2 * Rate);
    EXPECT_EQ(report["speed_ppm"], 0);
    // A run begins anew only where this machine was too busy to send.
    const json& first = report["runs"].at(0);
    for (const json& run : report["runs"])
    {
        const std::int64_t expected = first["timestamp"].get<std::int64_t>() +
                                      run["sample"].get<std::int64_t>() * 1'000'000'000 / Rate;
        const std::int64_t late = run["timestamp"].get<std::int64_t>() - expected;
        EXPECT_TRUE(run == first || late > 400'000'000) << report["runs"];
    }
}

TEST_F(SendTest, FifoWithoutAWriterEndsAtStopAndTimeout)
{
    for (const std::string name : {"a.wav", "a.raw"})
    {
        ASSERT_EQ(::mkfifo(file(name).c_str(), 0600), 0);
        expectRefusal(send({file(name), "--timeout", "50ms"}), 3, "no data from");
        ToolProcess waiting(send({file(name), "-vvv"}));
    }
}

TEST_F(SendTest, FilesInARowBeginASequenceWhereTheFormatChanges)
{
    writeNoise(file("a.wav"), SF_FORMAT_WAV | SF_FORMAT_PCM_16, 1);
    writeNoise(file("b.wav"), SF_FORMAT_WAV | SF_FORMAT_PCM_24, 2);
    // The name is no UTF-8 either.
    runTool(send(
        {file("a.wav"), file("a.wav"), file("b.wav"), "-d", "250ms", "--latency", "1h", "--report",
         file("\xff.json")}));
    const json report = readJson(file("\xff.json"));
    EXPECT_EQ(report["samples"], SourceSamples * 5 / 2);
    // On a busy machine there can be more runs; the last format's first one is where it began.
    const auto& runs = report["runs"];
    const auto second = std::find_if(
        runs.begin(), runs.end(), [](const json& run) { return run.contains("channels"); });
    ASSERT_NE(second, runs.end());
    EXPECT_EQ((*second)["sample"], 2 * SourceSamples);
    EXPECT_EQ((*second)["channels"], 2);
    EXPECT_GT(runs.at(0)["timestamp"], miscUtils::getMonotonicSysclockTime());
}

TEST_F(SendTest, FramesHaveTheRequestedLength)
{
    runTool(send({"--silence", "--frame", "1h", "-d", "50ms"})); // it is waited for
    runTool(send(
        {"--silence", "-r", "22050", "--frame", "7ms", "-d", "140ms", "--report", file("s.json")}));
    EXPECT_EQ(readJson(file("s.json"))["frames"], 21) << "of 154 samples, and one of 7";
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
    EXPECT_TRUE(waitFor(hasJumped)) << getRuns();
}

} // namespace

} // namespace vlx::testing
