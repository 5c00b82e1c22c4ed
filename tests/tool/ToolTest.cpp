// Runs the tool as a user does, and looks at exit codes, messages, files and reports.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tool/ToolFixture.hpp"

namespace vlx::testing
{

namespace
{

TEST_F(ToolTest, EveryLosslessKindArrivesBitForBit)
{
    struct Row
    {
        const char* source;
        int sourceFormat;
        int channels;
        const char* recording;
        const char* streamFormat;
        int recordedSubtype;
    };
    const Row rows[] = {
        {"a.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16, 2, "b.wav", "S16LE", SF_FORMAT_PCM_16},
        {"a.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_24, 3, "b.wav", "S24LE", SF_FORMAT_PCM_24},
        {"a.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_U8, 1, "b.wav", "U8", SF_FORMAT_PCM_U8},
        {"a.wav", SF_FORMAT_WAV | SF_FORMAT_FLOAT, 2, "b.wav", "F32LE", SF_FORMAT_FLOAT},
        {"a.w64", SF_FORMAT_W64 | SF_FORMAT_DOUBLE, 1, "b.rf64", "F64LE", SF_FORMAT_DOUBLE},
        {"a.aiff", SF_FORMAT_AIFF | SF_FORMAT_PCM_24, 2, "b.caf", "S24LE", SF_FORMAT_PCM_24},
        {"a.aiff", SF_FORMAT_AIFF | SF_FORMAT_PCM_S8, 1, "b.wav", "S8", SF_FORMAT_PCM_U8},
        {"a.caf", SF_FORMAT_CAF | SF_FORMAT_PCM_32, 2, "b.au", "S32LE", SF_FORMAT_PCM_32},
        {"a.caf", SF_FORMAT_CAF | SF_FORMAT_ALAC_24, 2, "b.w64", "S24LE", SF_FORMAT_PCM_24},
        {"a.flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_24, 8, "b.flac", "S24LE", SF_FORMAT_PCM_24},
        {"a.flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_S8, 2, "b", "S8", SF_FORMAT_PCM_U8},
        {"a.wav", SF_FORMAT_WAV | SF_FORMAT_ULAW, 1, "b.wav", "F32LE", SF_FORMAT_FLOAT},
        {"a.ogg", SF_FORMAT_OGG | SF_FORMAT_VORBIS, 2, "b.wav", "F32LE", SF_FORMAT_FLOAT}};
    for (const Row& row : rows)
    {
        const std::string name =
            std::string(row.source) + " " + row.streamFormat + " to " + row.recording;
        SCOPED_TRACE(name);
        writeNoise(file(row.source), row.sourceFormat, row.channels);
        // A sender that is late leaves a gap.
        const std::string errors =
            transfer(
                {file(row.source), "--wait-receivers", "1"},
                {file(row.recording), "-q", "--overwrite", "--no-fill", "--report", file("r.json")})
                .errors;
        const Sound source = readSound(file(row.source));
        const Sound recording = readSound(file(row.recording));
        EXPECT_EQ(recording.info.samplerate, source.info.samplerate);
        EXPECT_EQ(recording.info.channels, source.info.channels);
        EXPECT_EQ(recording.info.format & SF_FORMAT_SUBMASK, row.recordedSubtype);
        EXPECT_TRUE(recording.values == source.values);
        EXPECT_EQ(readJson(file("r.json"))["sample_format"], row.streamFormat);
        EXPECT_EQ(errors, "");
    }
}

TEST_F(ToolTest, BadInputGetsOneLineAndItsExitCode)
{
    writeNoise(file("good.wav"), SF_FORMAT_WAV | SF_FORMAT_PCM_16, 1);
    std::ofstream(file("text.wav")) << "no audio in here";
    const std::string longName(108, 'x');
    const std::string longDirectory = file(std::string(60, 'd'));
    fs::create_directory(longDirectory);
    struct Row
    {
        Arguments arguments;
        int code;
        const char* message;
        ToolSettings settings = {};
    };
    const ToolSettings noDirectory = {.tempDirectory = file("missing")};
    RawSidechannelServer taken(getSocketName() + "-taken");

    const std::vector<Row> rows = {
        {{}, 2, "subcommand"},
        {{"sned", "-s", "x"}, 2, "unknown subcommand sned; see"},
        {{"monitor", "x", "--metrics", "-"}, 2, "--metrics needs a file"},
        {{"--", "list"}, 2, "subcommand is required"},
        {{"info", "--"}, 2, "NAME is required"},
        {{"info", "--", "-x", "-y"}, 2, "not expected: -y"},
        {{"info", "x", "y"}, 2, "unknown argument y; see"},
        {{"receive", "-s", "x", "o.wav", "--sender-user", "no such"},
         2,
         "unknown user \"no such\""},
        {{"monitor", "a", "--interval", "1"}, 2, "unknown option --interval; see"},
        {{"send", "--tone", "1"}, 2, "--socket"},
        {{"send", "-s", longName, "--tone", "1"}, 2, "108 bytes"},
        {{"send", "-s", "", "--tone", "1"}, 2, "empty"},
        {send({}), 2, "--tone"},
        {send({file("good.wav"), "--tone", "1"}), 2, "either"},
        {send({file("good.wav"), "-r", "8000"}), 2, "--raw"},
        {send({"--tone", "1", "-f", "s17"}), 2, "unknown format \"s17\""},
        {send({"--tone", "1", "-f", "S24_LE"}), 2, "S24_3LE"},
        {send({"--tone", "nan"}), 2, "invalid frequency"},
        {send({"--tone", "1", "--verbose=99999999999999999999"}), 2, "verbose"},
        {send({"--tone", "1", "-r", "44.1q"}), 2, "invalid rate"},
        {send({"--tone", "1", "--frame", "10 ms"}), 2, "invalid duration"},
        {send({"--tone", "1", "--frame", "0ms"}), 2, "above 0"},
        {send({"--tone", "1", "--wait-receivers", "-1"}), 2, "not a whole number"},
        {send({"--tone", "1", "--wait-receivers", "99999999999999999999"}), 2,
         "not a whole number"},
        {send({"--tone", "1", "-c", "256"}), 2, "256"},
        {send({"--tone", "1", "--realtime=100"}), 2, "send: --realtime: \"100\""},
        {send({"--tone", "1", "--protocol", "udp"}), 2, "not one of pubsub|pipeline"},
        {send({"--tone", "1", "--clock-port", "5"}), 2, "--clock-address"},
        {send({"--tone", "1", "--wait-receiver", "1"}), 2, "unknown option --wait-receiver; see"},
        {send({"--tone", "1", "--log-config", file("missing")}), 1, "missing"},
        {receive({}), 2, "OUTPUT"},
        {send({file("missing.wav")}), 1, "No such file"},
        {send({m_files}), 1, "directory"},
        {send({file("text.wav")}), 1, "text.wav"},
        {send({file("missing.raw"), "--raw"}), 1, "No such file"},
        {send({"-", "-r", "8000"}), 2, "standard input is a terminal", {.inputPath = "/dev/ptmx"}},
        {send({"-", "-r", "8000"}), 2, "standard input is closed", {.closed = {0}}},
        {send({"-"}), 1, "empty"},
        {send({"-", "--raw"}), 1, "empty"},
        {send({"-", "-c", "1"}), 1, "1 of 2 bytes", {.input = std::string(1001, 'x')}},
        {send({"--tone", "1", "--report", file("missing/r.json")}), 1, "r.json"},
        {{"send", "-s", getSocketName() + "-taken", "--tone", "1"}, 1, "taken"},
        {send({"--tone", "1"}), 1, "No such file", noDirectory},
        {send({"--tone", "1"}), 1, "not a directory", {.tempDirectory = file("good.wav")}},
        {send({"--tone", "1"}), 1, "too long", {.tempDirectory = longDirectory}},
        {receive({file("a.wav")}), 1, "No such file", noDirectory},
        {receive({file("missing/a.wav")}), 1, "No such file"},
        {receive({m_files}), 1, "directory"},
        {receive({"/dev/null"}), 1, "raw"},
        {receive({file("a.mp4")}), 2, "unknown kind of audio file \"mp4\""},
        {receive({file("a.wav"), "-t", "doc"}), 2, "unknown kind of audio file \"doc\""},
        {receive({file("%H.doc"), "--name-pattern"}), 2, "unknown kind of audio file \"doc\""},
        {receive({"/dev/null/%H.wav", "--name-pattern"}), 1, "no file can be created"},
        {receive({"-"}), 2, "terminal", {.outputPath = "/dev/ptmx"}},
        {receive({"-"}), 2, "closed", {.closed = {1}}},
        {receive({"-", "-t", "flac"}), 1, "-t wav"},
        {receive({"-", "--split"}), 2, "--split needs a file name"},
        {receive({"-", "--max-duration", "1s"}), 2, "--max-duration needs a file name"},
        {receive({"-", "--name-pattern"}), 2, "--name-pattern needs a file name"},
        {receive({"-", "--report", "-"}), 2, "report"},
        {receive({file("a.wav"), "--latency", "1s"}), 2, "--play"},
        {receive({file("a.wav"), "--report", file("missing/r.json")}), 1, "r.json"},
        {receive({file("a.wav"), "--timeout", "50ms"}), 3, "no sender"},
        {send({"--tone", "1", "--wait-receivers", "2", "--timeout", "50ms"}), 3, "0 of 2"}};
    for (const Row& row : rows)
        expectRefusal(row.arguments, row.code, row.message, row.settings);
    EXPECT_EQ(std::distance(fs::directory_iterator(m_files), {}), 3) << "a recording was left";
}

TEST_F(ToolTest, HelpAndVersionGoToStandardOutput)
{
    for (const Arguments& arguments :
         {Arguments{"--version"}, {"--help"}, {"send", "-h"}, {"receive", "-h"}})
    {
        const auto [output, errors] = runTool(arguments);
        EXPECT_THAT(output, HasSubstr("vlx"));
        EXPECT_EQ(errors, "");
        std::istringstream lines(output);
        for (std::string line; std::getline(lines, line);)
            EXPECT_LE(line.size(), 80U) << line;
    }
}

TEST_F(ToolTest, CompletionsKnowWhatCanFollow)
{
    constexpr int FilesToo = 1;
    struct Row
    {
        Arguments words; // the last one is about to be completed
        int code;
        std::vector<const char*> offered;
    };
    const Row rows[] = {
        {{""}, 0, {"send", "receive", "list", "info", "monitor", "clock", "check"}},
        {{"clock", ""}, 0, {"serve", "watch"}},
        {{"clock", "watch", "-"}, 0, {"--timeout", "--json"}},
        {{"send", "-s", "x", "--w"}, 0, {"--wait-receivers", "--socket-mode"}},
        {{"send", "--socket-mode", ""}, 0, {"owner", "group", "all"}},
        {{"send", "-f", ""}, 0, {"S16LE", "F64BE"}},
        {{"send", "-d", ""}, 0, {}},
        {{"send", "--report", ""}, FilesToo, {}},
        {{"receive", "-t", ""}, 0, {"wav", "flac", "raw"}},
        {{"receive", "--raw", ""}, FilesToo, {}}};
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.words.back());
        const std::string output = runTool(join({"--complete"}, row.words), row.code).output;
        EXPECT_EQ(output.empty(), row.offered.empty()) << output;
        for (const char* const word : row.offered)
            EXPECT_THAT("\n" + output, HasSubstr("\n" + std::string(word) + "\t"));
    }
}

TEST_F(ToolTest, ReportsFollowNoLinkAndNeverBlock)
{
    const std::string victim = file("victim");
    const std::string report = file("r.json");
    const auto sendWithReport = [&](const std::string& path, int code = 0,
                                    const ToolSettings& settings = {}) {
        return runTool(send({"--tone", "1", "-d", "20ms", "-q", "--report", path}), code, settings);
    };
    const auto countFiles = [&]
    { return std::distance(fs::directory_iterator(m_files), fs::directory_iterator()); };

    // Where another user may write, names are prepared: the one beside, and the report's own.
    std::ofstream(victim) << "precious";
    fs::create_symlink(victim, report + ".new");
    sendWithReport(report);
    EXPECT_EQ(readJson(report)["finished"], true);
    fs::remove(report);
    fs::remove(report + ".new");
    ASSERT_EQ(::mkfifo((report + ".new").c_str(), 0600), 0);
    sendWithReport(report);
    fs::remove(report);
    fs::create_symlink(victim, report);
    sendWithReport(report);
    EXPECT_EQ(readJson(report)["finished"], true);
    EXPECT_EQ(fs::file_size(victim), 8U) << "written through a link";
    EXPECT_EQ(countFiles(), 3) << "something was left behind";

    // A full disk leaves the report before as it was.
    const ToolSettings small = {.maxFileSize = 200}; // less than a report, more than a message
    for (const auto& [path, text] :
         {std::pair(report, "File too large"), std::pair(std::string("/dev/full"), "No space left"),
          std::pair(report + ".new", "No such device")}) // a FIFO without a reader
    {
        EXPECT_THAT(sendWithReport(path, 1, small).errors, HasSubstr(text));
    }
    EXPECT_EQ(readJson(report)["finished"], true);
    EXPECT_EQ(countFiles(), 3) << "something was left behind";

    // What has a reader is written in place.
    const Descriptor reader(::open((report + ".new").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    sendWithReport(report + ".new");
    std::string text(10'000, '\0');
    text.resize(static_cast<std::size_t>(::read(reader.get(), text.data(), text.size())));
    EXPECT_EQ(json::parse(text, nullptr, false)["finished"], true) << text;
    const std::string output = sendWithReport("/dev/stdout").output;
    EXPECT_EQ(json::parse(output, nullptr, false)["finished"], true);
    EXPECT_TRUE(fs::is_symlink("/dev/stdout"));
}

TEST_F(ToolTest, SignalsStopBothEndsCleanlyAndAtOnce)
{
    // The receiver's monitor thread alone would take up to 5 s. A busy machine may hold one up.
    constexpr auto MaxStopTime = std::chrono::seconds(2);
    std::chrono::nanoseconds shortest = DefaultDeadline;
    for (const int number : {SIGINT, SIGTERM, SIGHUP})
    {
        ToolProcess receiver(receive({file("a.flac"), "-q", "--report", file("r.json")}));
        ToolProcess sender(send({"--tone", "440", "--report", file("s.json")}));
        ASSERT_TRUE(waitForSize(file("a.flac"), 12000));
        const auto begin = std::chrono::steady_clock::now();
        receiver.signal(number);
        EXPECT_EQ(receiver.wait(), 128 + number);
        sender.signal(number);
        EXPECT_EQ(sender.wait(), 128 + number);
        shortest = std::min(shortest, std::chrono::steady_clock::now() - begin);
        EXPECT_EQ(sender.getErrors() + receiver.getErrors(), "");

        const json report = readJson(file("r.json"));
        EXPECT_EQ(readSound(file("a.flac")).info.frames, report["samples"]);
        EXPECT_EQ(readJson(file("s.json"))["finished"], false);
        fs::remove(file("a.flac"));
    }
    EXPECT_LT(shortest, MaxStopTime) << "of a receiver and a sender";
    ::signal(SIGHUP, SIG_IGN); // as nohup(1) does
    ToolProcess blocked(send({"--tone", "440", "--protocol", "pipeline", "-vv"}));
    ::signal(SIGHUP, SIG_DFL);
    ASSERT_TRUE(waitForText(blocked, "Starting new sequence"));
    blocked.signal(SIGHUP);
}

} // namespace

} // namespace vlx::testing
