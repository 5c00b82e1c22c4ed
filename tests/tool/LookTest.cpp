// The subcommands that look at streams, clocks and the machine.

#include <cstdlib>
#include <regex>
#include <sstream>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <vlxkit/Media.hpp>
#include <vlxkit/Producer.hpp>
#include <vlxkit/Users.hpp>

#include "support/RawSender.hpp"
#include "support/TestProvider.hpp"
#include "tool/ToolFixture.hpp"

namespace vlx::testing
{

namespace
{

std::vector<std::string> splitLines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

/// @return the last whole line as JSON
json readLastLine(const ToolProcess& process)
{
    const std::string text = process.getOutput();
    const auto lines = splitLines(text.substr(0, text.rfind('\n') + 1));
    return lines.empty() ? json::object() : json::parse(lines.back(), nullptr, false);
}

bool contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

} // unnamed namespace

class LookTest : public ToolTest
{
protected:
    /// @return what "list --json" tells of this test's senders
    json listOwn() const
    {
        json own = json::array();
        for (const json& sender : json::parse(runTool({"list", "--json"}).output, nullptr, false))
        {
            if (sender["name"].get<std::string>().starts_with(getSocketName()))
                own.push_back(sender);
        }
        return own;
    }

    /// Waits until a stream is announced.
    void waitForSender(const std::string& name) const
    {
        const auto isThere = [&] { return ToolProcess({"info", name}).wait() == 0; };
        ASSERT_TRUE(waitFor(isThere)) << name;
    }

    /// Waits until the last line of a monitor is one that a condition holds for.
    static void waitForLine(
        const ToolProcess& monitor,
        const std::function<bool(const json&)>& condition,
        const std::string& what)
    {
        const auto holds = [&]
        {
            const json line = readLastLine(monitor);
            return line.contains("state") && condition(line);
        };
        EXPECT_TRUE(waitFor(holds)) << what << ": " << readLastLine(monitor);
    }

    static bool isRunning(const json& line)
    {
        return line["state"] == "running";
    }
};

TEST_F(LookTest, ListAndInfoTellWhatIsAnnouncedAndHarmNoTerminal)
{
    const std::string evil = getSocketName() + "\t\x1b[2J\xff\u0085\u202e\u200b";
    ToolProcess first(
        {"send", "-s", evil, "--tone", "440", "-f", "F32LE", "-r", "44.1k", "-c", "1", "--shared",
         "always", "--socket-mode", "group"});
    ToolProcess second(send({"--silence", "--protocol", "pipeline", "--clock", "net"}));
    waitForSender(evil);
    waitForSender(getSocketName());

    EXPECT_TRUE(waitFor([&] { return listOwn().size() == 2; })); // its helper process is gone
    for (const json& sender : listOwn())
    {
        const bool isSecond = sender["name"] == getSocketName();
        EXPECT_EQ(sender["program"], "vlx");
        EXPECT_EQ(sender["protocol"], isSecond ? "pipeline" : "pubsub");
        EXPECT_EQ(sender["clock"], isSecond ? "gstnetclock" : "sysclock");
        EXPECT_EQ(sender["sample_rate"], isSecond ? 48000 : 44100);
        EXPECT_EQ(sender["may_join"], true);
        EXPECT_EQ(sender.contains("shared_memory"), !isSecond);
        const fs::path socketFile = toSocketFilePath(sender["uri"].get<std::string>());
        EXPECT_TRUE(isSecond || fs::status(socketFile).permissions() == fs::perms{0660});
    }
    EXPECT_TRUE(waitFor(
        [&] {
            return contains(runTool({"info", evil}).output, "memory     /dev/shm/vlx-");
        }));
    for (const Arguments& arguments : {Arguments{"list"}, {"info", evil}})
    {
        const std::string text = runTool(arguments).output;
        EXPECT_THAT(
            text, HasSubstr(getSocketName() + "\\x09\\x1b[2J\\xff\\xc2\\x85\\xe2\\x80\\xae"));
        EXPECT_THAT(text, HasSubstr("F32LE 44100 Hz 1ch"));
        EXPECT_FALSE(contains(text, "\x1b") || contains(text, "\u202e")) << text;
    }
    EXPECT_THAT(runTool({"info", getSocketName()}).output, HasSubstr("gstnetclock 127.0.0.1:"));

    if (const auto other = letAnotherUserIn())
    {
        EXPECT_THAT(
            runTool({"info", evil}, 0, *other).output, HasSubstr("--socket-mode group or all"));
    }

    expectRefusal({"info", getSocketName() + "-none"}, 3, "no sender");

    // One that is stopped does not answer: the wait for it can be ended.
    second.suspend();
    runTool({"info", getSocketName(), "--timeout", "200ms"}, 3);
    ToolProcess patient({"info", getSocketName(), "--timeout", "1h"});
    EXPECT_EQ(patient.wait(std::chrono::seconds(1)), std::nullopt);
    patient.signal(SIGINT);
    EXPECT_EQ(patient.wait(), 128 + SIGINT);
    second.signal(SIGCONT);
}

TEST_F(LookTest, AnyMediaIsShownByItsCaps)
{
    struct Row
    {
        std::string caps;
        std::string shown;
        bool isValid;
    };
    const std::string video = "video/x-raw, format=(string)I420, width=(int)1920, height=(int)1080";
    const Row rows[] = {
        {video + ", views=(int)1", "video/x-raw, format=I420, width=1920, height=1080, views=1",
         true},
        {"a/b, c=(string)" + std::string(50'000, 'd'), "a/b, c=" + std::string(50, 'd') + "...",
         true},
        {"video/x-raw\x1b[2J", "codec \"VLXM\"", false}};
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.shown);
        kit::PlainPayloader payloader(kit::MediaFourcc, Buffer(row.caps.begin(), row.caps.end()));
        OpenSender sender(getSocketName(), payloader);
        EXPECT_THAT(runTool({"list"}).output, HasSubstr("  " + row.shown + "  "));
        EXPECT_THAT(runTool({"info", getSocketName()}).output, HasSubstr(" " + row.shown + "\n"));
        const json info = json::parse(runTool({"info", "--json", getSocketName()}).output);
        EXPECT_EQ(info["codec"], "VLXM");
        EXPECT_EQ(info.value("caps", ""), row.isValid ? row.caps : "");
    }
    kit::PlainPayloader payloader(kit::MediaFourcc, Buffer(video.begin(), video.end()));
    OpenSender sender(getSocketName(), payloader);
    ToolProcess objects({"monitor", getSocketName(), "--json"});
    ToolProcess lines({"monitor", getSocketName()});
    const auto showsFrames = [&](const json& line)
    {
        sender.sendMediaData(0, 0, Buffer(100));
        return isRunning(line) && line["frames"] > 0 && line.value("codec", "") == "VLXM" &&
               line.value("caps", "") == video && line["levels"].empty();
    };
    waitForLine(objects, showsFrames, "frames without levels");
    EXPECT_TRUE(waitFor(
        [&] { return contains(lines.getOutput(), ": running, video/x-raw, format=I420, "); }));
}

TEST_F(LookTest, ListShowsOtherUsersAndCleanReportsWhatItCannotRemove)
{
    if (!runsAlone())
        return;
    ToolProcess sender(send({"--silence"}));
    waitForSender(getSocketName());
    EXPECT_EQ(listOwn().at(0)["user"], ::geteuid());
    const std::string userName = listOwn().at(0)["user_name"];
    EXPECT_NE(userName, std::to_string(::geteuid()));
    EXPECT_EQ(kit::findUser(userName), ::geteuid());
    EXPECT_THAT(runTool({"-q", "list"}).output, HasSubstr(getSocketName()));

    const fs::path full = fs::path(getTempDirectory()) / "VlxSender-abcdef";
    const fs::path dead = fs::path(getTempDirectory()) / "VlxSender-ghijkl";
    fs::create_directories(full / "by another program");
    fs::create_directory(dead);
    for (const fs::path& path : {full, dead})
        fs::last_write_time(path, fs::file_time_type::clock::now() - std::chrono::minutes(2));
    const ToolText clean = runTool({"list", "--clean"}, 1);
    EXPECT_THAT(clean.errors, HasSubstr(full.string() + ": "));
    EXPECT_EQ(clean.output, "removed " + dead.string() + "\n");

    // A directory may be that of a sender that does not answer.
    ToolProcess mute(
        {"send", "-s", getSocketName() + "-mute", "--silence", "--protocol", "pipeline"});
    waitForSender(getSocketName() + "-mute");
    mute.suspend();
    const std::string doubts = runTool({"list", "--clean"}).errors;
    EXPECT_THAT(doubts, HasSubstr("kept: 1 whose user"));
    EXPECT_THAT(doubts, HasSubstr("2 younger than a minute"));
    mute.signal(SIGCONT);
    EXPECT_EQ(mute.stop(), 128 + SIGTERM);
    fs::remove_all(full);

    const auto other = letAnotherUserIn();
    if (!other)
        GTEST_SKIP() << "only root can run the tool as another user";
    const std::string errors = runTool({"list"}, 0, *other).errors;
    EXPECT_THAT(errors, HasSubstr("other users' senders"));
    EXPECT_THAT(errors, Not(HasSubstr("no sender on this machine")));
}

TEST_F(LookTest, OnlyTheSenderOfTheGivenUserIsJoined)
{
    const std::string own = std::to_string(::geteuid());
    const std::string other = std::to_string(::geteuid() + 1);
    ToolProcess sender(send({"--silence"}));
    for (const Arguments& arguments :
         {receive({file("a.wav"), "-q", "--overwrite"}), {"monitor", getSocketName(), "-q"}})
    {
        runTool(join(arguments, {"--sender-user", own, "-d", "100ms", "--timeout", "9s"}));
        runTool(join(arguments, {"--sender-user", other, "--timeout", "500ms"}), 3);
    }
}

TEST_F(LookTest, CompletionsOfferStreamsWithPlainNames)
{
    const std::string plain = getSocketName() + "-1_a.b";
    const std::string evil = getSocketName() + "$(touch " + file("touched") + ")";
    ToolProcess first({"send", "-s", plain, "--silence"});
    ToolProcess second({"send", "-s", evil, "--silence"});
    waitForSender(plain);
    waitForSender(evil);
    for (const Arguments& arguments :
         {Arguments{"info", ""}, {"monitor", "-v", ""}, {"receive", "-s", ""}})
    {
        const std::string output = runTool(join({"--complete"}, arguments)).output;
        EXPECT_THAT(output, HasSubstr(plain + "\t"));
        EXPECT_THAT(output, Not(HasSubstr("touch")));
    }
    EXPECT_EQ(runTool({"--complete", "send", "-s", ""}).output, "") << "their names are taken";
}

TEST_F(LookTest, AReaderThatHasEnoughEndsTheMonitorQuietly)
{
    ToolProcess sender(send({"--silence"}));
    waitForSender(getSocketName());
    for (const std::string& command : {"monitor " + getSocketName(), std::string("list --json")})
    {
        const std::string line = std::string(VLX_TOOL_PATH) + " " + command + " 2> " +
                                 file("errors") + " | true; exit ${PIPESTATUS[0]}";
        const int status = std::system(("bash -c '" + line + "'").c_str());
        EXPECT_EQ(WEXITSTATUS(status), 0) << command;
        EXPECT_THAT(readText(file("errors")), Not(HasSubstr("cannot")));
    }

    const std::string once =
        runTool({"monitor", getSocketName(), getSocketName(), "--json", "-d", "100ms", "-q"})
            .output;
    EXPECT_EQ(countLines(once), 1U) << once;
}

TEST_F(LookTest, AServedClockIsNotServedTwiceAndJunkKeepsNobodyOut)
{
    const std::string address = makeOwnAddress();
    ToolProcess provider({"clock", "serve", "--address", address});
    ASSERT_TRUE(waitFor([&] { return countLines(provider.getOutput()) == 1; }));
    std::string port = provider.getOutput().substr(address.size() + 1);
    port.pop_back();
    expectRefusal({"clock", "serve", "--address", address, "--port", port}, 1, "in use");

    std::jthread flood(
        [&](const std::stop_token& stop)
        {
            const Descriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
            sockaddr_in target{};
            target.sin_family = AF_INET;
            target.sin_port = htons(static_cast<std::uint16_t>(std::stoi(port)));
            ::inet_pton(AF_INET, address.c_str(), &target.sin_addr);
            while (!stop.stop_requested())
            {
                for (std::size_t size = 0; size < 24; ++size)
                    ::sendto(
                        socket.get(), "junk of less than 24 bytes", size == 16 ? 17 : size, 0,
                        reinterpret_cast<const sockaddr*>(&target), sizeof(target));
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
    ToolProcess watch({"clock", "watch", address, port, "-d", "1h"});
    EXPECT_TRUE(waitForText(watch, "synchronised"));
    EXPECT_TRUE(waitForText(provider, "under load"));
    // Said once, however long it takes.
    EXPECT_TRUE(waitFor([&] { return countLines(watch.getOutput()) >= 2; }));
    flood.request_stop();
    flood.join();
    EXPECT_TRUE(waitForText(provider, "no longer"));
    EXPECT_EQ(countLines(provider.getErrors()), 2U) << provider.getErrors();
}

TEST_F(LookTest, WhatAnImpostorAnnouncesHarmsNoTerminal)
{
    RawSidechannelServer impostor(getSocketName());
    const Buffer announcement = makeSidechannelMessage(makeInitialInfo(
        "ipc:///VlxSender-\nvlx: \x1b[2J\u202e\xff" + std::string(5000, 'x'),
        NanomsgProtocol::PubSub));
    for (const Arguments& arguments :
         {receive({file("a.wav"), "-vv", "--timeout", "1s"}),
          {"monitor", getSocketName(), "-d", "1s"},
          {"info", getSocketName()},
          {"info", "--json", getSocketName()}})
    {
        ToolProcess process(arguments);
        while (!process.wait(std::chrono::milliseconds(1)))
            impostor.accept(std::chrono::milliseconds(20)).send(announcement);
        const std::string text = process.getOutput() + process.getErrors();
        EXPECT_THAT(text, HasSubstr("1b[2J"));
        EXPECT_FALSE(contains(text, "\x1b") || contains(text, "\u202e")) << text;
        EXPECT_THAT(text, Not(HasSubstr("\nvlx: \\x1b")));
    }
}

TEST_F(LookTest, MonitorWithoutNamesShowsStreamsAsTheyComeAndGo)
{
    if (!runsAlone())
        return;
    ToolProcess monitor({"monitor"}, {.onTerminal = true});
    ToolProcess lines({"monitor", "--json"});
    ToolProcess named({"monitor", getSocketName(), "--json"});
    monitor.expectOutput("no sender on this machine");
    ToolProcess shared(send({"--silence"}));
    monitor.expectOutput("  running  ");
    EXPECT_EQ(shared.stop(), 128 + SIGTERM) << shared.getErrors();
    monitor.expectOutput("  gone  ");
    // The next sender of the name is not joined.
    ToolProcess single(send({"--silence", "--protocol", "pipeline"}));
    monitor.expectOutput("  pipeline, not joined  S16LE");
    const auto isNotJoined = [](const json& line)
    { return line["state"] == "pipeline, not joined" && line.value("channels", 0) == 2; };
    waitForLine(lines, isNotJoined, "may have another receiver");
    waitForLine(named, isRunning, "its only receiver");
    EXPECT_EQ(single.stop(), 128 + SIGTERM);
    monitor.expectOutput("  gone  ");
    monitor.expectOutput("no sender on this machine");
    EXPECT_TRUE(waitForText(lines, getSocketName() + ": gone\n"));
    monitor.pressCtrlC();
    EXPECT_EQ(monitor.wait(), 128 + SIGINT);
}

TEST_F(LookTest, MonitorsIntervalsAddUpAndItsMetricsAreWhole)
{
    const std::string metrics = file("vlx.prom");
    const auto begin = std::chrono::steady_clock::now();
    ToolProcess monitor({"monitor", getSocketName(), "--json", "--metrics", metrics});
    ToolProcess sender(send({"--tone", "440", "--clock", "net"}));
    waitForLine(
        monitor,
        [](const json& line)
        {
            return isRunning(line) && line["frames"] > 0 && line["channels"] == 2 &&
                   line["sample_rate"] == 48000 && line["reconnects"] == 0 &&
                   line["clock"] == "gstnetclock" && line["clock_synchronized"] == true &&
                   line["levels"].size() == 2 &&
                   std::abs(line["levels"][0]["peak_dbfs"].get<double>() + 6.02) < 0.1;
        },
        "a tone on a network clock");

    const std::regex line(
        R"((# (TYPE|HELP) vlx_\w+ .+|vlx_\w+\{stream="[^"]+"\} -?[0-9.e+-]+|# EOF))");
    const auto isUp = [&]
    {
        const std::string text = readText(metrics);
        EXPECT_TRUE(text.ends_with("# EOF\n")) << text; // whenever it is read
        for (const std::string& each : splitLines(text))
            EXPECT_TRUE(std::regex_match(each, line)) << each;
        return contains(text, "vlx_up{stream=\"" + getSocketName() + "\"} 1\n") &&
               contains(text, "vlx_reconnects_total{stream=\"" + getSocketName() + "\"} 0\n");
    };
    EXPECT_TRUE(waitFor(isUp));
    monitor.signal(SIGINT);
    EXPECT_EQ(monitor.wait(), 128 + SIGINT);
    double seconds = 0;
    std::uint64_t frames = 0;
    for (const std::string& each : splitLines(monitor.getOutput()))
    {
        const json interval = json::parse(each, nullptr, false);
        seconds += interval.value("seconds", 0.0);
        frames += interval.value("frames", 0ULL);
    }
    EXPECT_EQ(frames, readLastLine(monitor)["total_frames"]);
    EXPECT_LT(
        seconds, std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count());
}

TEST_F(LookTest, MonitorFitsItsTerminal)
{
    ToolProcess sender(send({"--tone", "440", "-c", "32"}));
    waitForSender(getSocketName());
    ToolProcess monitor(
        {"monitor", getSocketName(), getSocketName() + std::string(90, 'x')}, {.onTerminal = true});
    // A whole screen: Ctrl-C makes the terminal discard what it has not shown yet.
    EXPECT_TRUE(waitFor(
        [&]
        {
            const std::string screen = monitor.getOutput();
            return contains(screen, "dBFS") &&
                   contains(screen.substr(screen.find("dBFS")), "more than fits the terminal");
        }));
    monitor.pressCtrlC();
    EXPECT_EQ(monitor.wait(), 128 + SIGINT);

    const std::string screen = monitor.getOutput();
    const std::string plain =
        std::regex_replace(screen, std::regex("\x1b\\[[0-9;]*[A-Za-z]|\\^C"), "");
    for (const std::string& line : splitLines(plain))
        EXPECT_LE(line.size() - static_cast<std::size_t>(line.ends_with('\r')), 80U) << line;
    EXPECT_TRUE(contains(screen, "\x1b[32m") || contains(screen, "\x1b[33m"));
}

TEST_F(LookTest, AProvidersAbsenceAndJumpAreShown)
{
    constexpr std::int64_t JumpNs = 1'000'000'000'000;
    TestProvider provider;
    provider.start(0);
    provider.stop(); // it has a port now
    FormattedPayloader payloader(Rate, 1);
    const OpenSender sender( // the tool's would wait for the clock
        getSocketName(), payloader, NanomsgProtocol::PubSub,
        {provider.getAddress(), provider.getPort(), TimeSyncProtocol::GstNetClock});
    const Arguments watchClock = {
        "clock", "watch", provider.getAddress(), std::to_string(provider.getPort())};
    ToolProcess watch(watchClock, {.onTerminal = true});
    ToolProcess monitor({"monitor", getSocketName()}, {.onTerminal = true});
    ToolProcess lines(join(watchClock, {"--json"}));
    for (ToolProcess* const process : {&watch, &monitor})
        process->expectOutput("not synchronised");
    runTool(join(watchClock, {"--timeout", "200ms"}), 3);
    EXPECT_TRUE(waitFor([&] { return countLines(lines.getOutput()) > 0; }));
    const json absent = readLastLine(lines);
    EXPECT_EQ(absent["synchronized"], false);
    EXPECT_TRUE(absent["offset_ns"].is_null() && absent["round_trip_ns"].is_null()) << absent;
    provider.start(JumpNs);
    for (ToolProcess* const process : {&watch, &monitor})
        process->expectOutput("synchronised, offset ");

    // Unsynchronised only for a moment, which a test on a busy machine may miss.
    const auto isLost = [&] { return contains(watch.getOutput(), "synchronisation lost"); };
    const auto jump = [&]
    {
        provider.stop();
        provider.start(provider.getOffsetNs() + JumpNs);
        return waitFor(isLost, std::chrono::seconds(1));
    };
    EXPECT_TRUE(waitFor(jump));
    watch.expectOutput("clock watch: synchronisation lost");
    watch.expectOutput("clock watch: synchronisation regained");
    watch.expectOutput("synchronised, offset ");
    // Relative to the monotonic clock. Round trips on a busy machine limit a first estimate.
    json line;
    const auto isExact = [&]
    {
        line = readLastLine(lines);
        return line["offset_ns"].is_number() &&
               std::abs(line["offset_ns"].get<std::int64_t>() - provider.getOffsetNs()) <
                   20'000'000;
    };
    EXPECT_TRUE(waitFor(isExact)) << line;
    EXPECT_EQ(line["synchronized"], true);
    EXPECT_GT(line["round_trip_ns"], 0);
}

TEST_F(LookTest, CheckReportsWhatIsWrong)
{
    EXPECT_THAT(
        runTool({"check"}, 1, {.tempDirectory = file("none")}).output,
        StartsWith("FAIL  base directory"));

    // Another user that has taken the names to come, by the number of the process.
    std::vector<std::unique_ptr<RawSidechannelServer>> impostors;
    const pid_t last = findLatestProcess();
    for (pid_t pid = last; pid < last + 200; ++pid)
        impostors.push_back(
            std::make_unique<RawSidechannelServer>("vlx-check-" + std::to_string(pid)));
    ToolProcess check({"check"});
    const auto code = check.wait();
    const std::string text = check.getOutput();
    EXPECT_EQ(countLines(text), 5U) << text;
    EXPECT_THAT(text, HasSubstr(" of 500 frames lost"));
    EXPECT_EQ(code, contains(text, "FAIL") ? 1 : 0) << text; // a busy machine is not fit
}

} // namespace vlx::testing
