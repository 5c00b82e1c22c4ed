#include <cstdlib>
#include <limits>

#include <DirectoryLock.hpp>
#include <SocketFile.hpp>
#include <TailWait.hpp>
#include <log4cplus/logger.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <vlx/VlxSender.hpp>
#include <vlxkit/BaseDirectory.hpp>
#include <vlxkit/Discovery.hpp>

#include "support/AllocationCounter.hpp"
#include "support/ChildProcess.hpp"
#include "support/OpenProducer.hpp"
#include "support/OpenSender.hpp"
#include "support/RecordedReceiver.hpp"
#include "support/ResourceLimit.hpp"
#include "support/VlxTest.hpp"

namespace vlx::kit
{

namespace
{

using namespace vlx::testing;

constexpr StreamFormat Format{audioUtils::PcmFormat::S16LE, 48000, 2};
constexpr TimeValue FrameNs = 10'000'000;

mode_t getMode(const std::string& path)
{
    struct stat status = {};
    return ::lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

sockaddr_un makeAddress(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    return address;
}

void bindSocket(const std::string& path)
{
    const Descriptor listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address = makeAddress(path);
    const auto* const generic = reinterpret_cast<const sockaddr*>(&address);
    ASSERT_EQ(::bind(listener.get(), generic, sizeof(address)), 0) << path;
}

void bindForeignSocket(const std::string& path)
{
    bindSocket(path);
    ASSERT_EQ(::chown(path.c_str(), 65534, 65534), 0);
}

/// Takes part in the transport's greeting, as a receiver's end of the main channel, and leaves.
void greetAndLeave(const std::string& socketFile, bool isListener)
{
    const Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address = makeAddress(socketFile);
    const auto* const generic = reinterpret_cast<const sockaddr*>(&address);
    const auto greet = [](int fd, const char* digits)
    {
        Buffer greeting = fromHex(digits);
        ::send(fd, greeting.data(), greeting.size(), MSG_NOSIGNAL);
        EXPECT_EQ(::recv(fd, greeting.data(), greeting.size(), MSG_WAITALL), 8);
    };
    if (!isListener)
    {
        ASSERT_EQ(::connect(socket.get(), generic, sizeof(address)), 0);
        greet(socket.get(), "0053500000210000");
        return;
    }
    ASSERT_EQ(::bind(socket.get(), generic, sizeof(address)), 0);
    ASSERT_EQ(::listen(socket.get(), 1), 0);
    const Descriptor accepted(::accept4(socket.get(), nullptr, nullptr, SOCK_CLOEXEC));
    greet(accepted.get(), "0053500000510000");
    ::unlink(socketFile.c_str());
}

class ProducerTest : public VlxTest
{
protected:
    ProducerOptions makeOptions(NanomsgProtocol protocol = NanomsgProtocol::PubSub) const
    {
        return {.name = getSocketName(), .protocol = protocol};
    }
};

TEST_F(ProducerTest, OpensForThoseWhoMayJoin)
{
    const std::tuple<NanomsgProtocol, SocketMode, mode_t, mode_t> rows[] = {
        {NanomsgProtocol::PubSub, SocketMode::Owner, 01700, 0600},
        {NanomsgProtocol::PubSub, SocketMode::Group, 01750, 0660},
        {NanomsgProtocol::PubSub, SocketMode::All, 01755, 0666},
        {NanomsgProtocol::Pipeline, SocketMode::Owner, 01700, 0},
        {NanomsgProtocol::Pipeline, SocketMode::Group, 01770, 0},
        {NanomsgProtocol::Pipeline, SocketMode::All, 01777, 0}};
    for (const auto& [protocol, mode, directoryMode, fileMode] : rows)
    {
        ProducerOptions options = makeOptions(protocol);
        options.socketMode = mode;
        Producer producer(options);
        RecordedReceiver receiver(getSocketName());
        ASSERT_EQ(producer.open(Format).getText(), "");
        EXPECT_EQ(getMode(fs::path(producer.getSocketFile()).parent_path()), directoryMode);
        if (protocol == NanomsgProtocol::PubSub) // in Pipeline the receiver makes it
        {
            EXPECT_EQ(getMode(producer.getSocketFile()), fileMode);
        }
        EXPECT_EQ(producer.getName(), getSocketName());
        ASSERT_TRUE(producer.waitForReceivers(1));
        EXPECT_TRUE(producer.send(1000, FrameNs, toBytes("DATA")));
        EXPECT_TRUE(receiver.waitForEvent("frame 1000"));
        EXPECT_EQ(producer.getStatistics().frames, 1U);
        EXPECT_EQ(producer.getStatistics().bytes, 4U);
        EXPECT_EQ(producer.getStatistics().receivers, 1U);
    }
}

TEST_F(ProducerTest, ReportsForeignEntriesInItsDirectory)
{
    const std::string victim = getTempDirectory() + "/victim";
    std::ofstream(victim) << "kept";
    ASSERT_EQ(::chmod(victim.c_str(), 0600), 0);
    const struct
    {
        const char* name;
        std::function<void(const std::string&)> swap; // of the socket file
        bool isFineInPipeline;
        SocketMode mode = SocketMode::All;
        bool isFineInPubSub = false;
    } rows[] = {
        {"nothing", [](const auto&) {}, true},
        {"link", [&](const auto& file) { fs::create_symlink(victim, file); }, false},
        {"file", [](const auto& file) { std::ofstream(file) << "x"; }, false},
        {"directory", [](const auto& file) { fs::create_directory(file); }, false},
        {"full directory", [](const auto& file) { fs::create_directories(file + "/x"); }, false},
        {"socket of another user", bindForeignSocket, true},
        {"socket of a user who may not join", bindForeignSocket, false, SocketMode::Owner},
        {"own socket", bindSocket, true, SocketMode::Owner, true}};
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs a second user";
    for (const auto& row : rows)
    {
        for (const auto protocol : {NanomsgProtocol::PubSub, NanomsgProtocol::Pipeline})
        {
            PcmPayloader payloader;
            OpenSender sender(getSocketName(), payloader, protocol);
            const std::string file = findSocketFile(getSocketName());
            ASSERT_THAT(file, StartsWith(getTempDirectory() + "/VlxSender-"));
            fs::remove(file);
            row.swap(file);
            DirectoryLock lock;
            const Status status = protectSocketFile(file, protocol, row.mode, lock);
            const bool isFine =
                protocol == NanomsgProtocol::Pipeline ? row.isFineInPipeline : row.isFineInPubSub;
            EXPECT_EQ(static_cast<bool>(status), isFine) << row.name << ": " << status.getText();
            EXPECT_EQ(getMode(victim), 0600U) << row.name;
            sender.shutdownSender(); // would abort with a directory in the socket file's place
            fs::remove_all(fs::path(file).parent_path());
        }
    }

    // The sender's directory itself.
    const std::string directory = getTempDirectory() + "/VlxSender-linked";
    fs::create_directory_symlink(getTempDirectory(), directory);
    DirectoryLock lock;
    EXPECT_THAT(
        protectSocketFile(directory + "/x", NanomsgProtocol::PubSub, SocketMode::Owner, lock)
            .getText(),
        HasSubstr("replaced"));
    fs::remove(directory);
    fs::create_directory(directory);
    ASSERT_EQ(::chown(directory.c_str(), 65534, 65534), 0);
    EXPECT_THAT(
        protectSocketFile(directory + "/x", NanomsgProtocol::Pipeline, SocketMode::Owner, lock)
            .getText(),
        HasSubstr("cannot restrict"));

    // The socket of a receiver whose user is the sender's, and not root.
    bindForeignSocket(directory + "/x");
    ASSERT_EQ(::chmod(getTempDirectory().c_str(), 0755), 0);
    lock = {};
    ASSERT_EQ(::seteuid(65534), 0);
    const Status status =
        protectSocketFile(directory + "/x", NanomsgProtocol::Pipeline, SocketMode::Owner, lock);
    ASSERT_EQ(::seteuid(0), 0);
    EXPECT_TRUE(status);
    fs::remove(directory + "/x");
    fs::remove(directory);
    fs::remove(victim);
}

TEST_F(ProducerTest, SaysWhatItCannotOpen)
{
    OpenProducer first(makeOptions());
    const std::string other = getSocketName() + "-b";
    const std::string longest = other + std::string(107 - other.size(), 'x');
    const auto pad = [](std::string path, std::size_t size)
    {
        path.resize(size, '/');
        return path;
    };
    const auto format = [](std::uint32_t rate, std::uint32_t channels) {
        return StreamFormat{audioUtils::PcmFormat::S16LE, rate, channels};
    };
    using enum ErrorCode;
    const struct
    {
        std::string name;
        std::string alternativeName;
        std::string baseDirectory;
        StreamFormat format;
        ErrorCode code;
        const char* text = ""; // part of it
    } rows[] = {
        {"", "", "", Format, NameInvalid, "1 to 107 bytes"},
        {longest, "", "", Format, Ok},
        {longest + "x", "", "", Format, NameInvalid, "1 to 107 bytes"},
        {getSocketName(), longest, "", Format, Ok},
        {other, longest + "x", "", Format, NameInvalid, "1 to 107 bytes"},
        {getSocketName(), "", "", Format, NameTaken, "is taken"},
        {getSocketName(), getSocketName(), "", Format, NameTaken, "is taken"},
        {getSocketName(), other, "", Format, Ok},
        {other, "", "/nowhere", Format, NoDirectory, "\"/nowhere\": No such file"},
        {other, "", pad(getTempDirectory(), 71), Format, Ok},
        {other, "", pad(getTempDirectory(), 72), Format, NoDirectory, "too long for a socket path"},
        {other, "", "", format(0, 2), InvalidArgument, "a rate of at least 1"},
        {other, "", "", format(768'000, 255), Ok},
        {other, "", "", format(768'001, 2), InvalidArgument, "at most 768000 Hz"},
        {other, "", "", format(48000, 0), InvalidArgument, "1 to 255 channels"},
        {other, "", "", format(48000, 256), InvalidArgument, "1 to 255 channels"}};
    for (const auto& row : rows)
    {
        ProducerOptions options = makeOptions();
        options.name = row.name;
        options.alternativeName = row.alternativeName;
        options.baseDirectory = row.baseDirectory;
        Producer producer(options);
        const Status status = producer.open(row.format);
        ASSERT_EQ(status.getCode(), row.code) << status.getText();
        EXPECT_THAT(status.getText(), HasSubstr(row.text));
        const std::string& name = row.alternativeName.empty() ? row.name : row.alternativeName;
        EXPECT_EQ(producer.getName(), row.code == Ok ? name : "");
        EXPECT_EQ(producer.send(0, FrameNs, {}).getCode(), row.code == Ok ? Ok : NotOpen);
    }
    const bool isRoot = ::seteuid(65534) == 0;
    const Status status = prepareBaseDirectory(BaseDirectoryUse::Send, "/usr").status;
    EXPECT_TRUE(!isRoot || ::seteuid(0) == 0);
    EXPECT_EQ(status.getCode(), NotPermitted);
    EXPECT_THAT(status.getText(), HasSubstr("not writable"));

    first.close();
    EXPECT_EQ(first.send(0, FrameNs, {}).getCode(), NotOpen);
    EXPECT_EQ(first.open(Format).getText(), ""); // once more

    // An open stream keeps its format, also in what receivers that join are told.
    EXPECT_EQ(first.open({audioUtils::PcmFormat::U8, 8000, 1}).getCode(), AlreadyOpen);
    RecordedReceiver receiver(getSocketName());
    EXPECT_TRUE(first.waitForReceivers(1));
    EXPECT_EQ(probeSender(getSocketName(), std::chrono::seconds(5)).format, Format);
}

TEST_F(ProducerTest, RefusesBaseDirectoryThatAnotherUserControls)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs a second user";
    constexpr uid_t Other = 65534;
    constexpr uid_t NoLink = ~uid_t{0};
    const std::tuple<uid_t, mode_t, uid_t, const char*> rows[] = {
        {0, 0700, NoLink, nullptr},
        {0, 0755, NoLink, nullptr},
        {0, 01777, NoLink, nullptr},
        {0, 0777, NoLink, "has no sticky bit"},
        {0, 0775, NoLink, "has no sticky bit"},
        {0, 0757, NoLink, "has no sticky bit"},
        {0, 01775, NoLink, nullptr},
        {Other, 0700, NoLink, "belongs to user 65534"},
        {Other, 01777, NoLink, "belongs to user 65534"},
        {0, 01777, 0, nullptr},
        {0, 01777, Other, "is a link that belongs to user 65534"},
        {0, 0777, 0, "has no sticky bit"}};
    const std::string directory = getTempDirectory() + "/base";
    const std::string link = getTempDirectory() + "/link";
    for (const auto& [owner, mode, linkOwner, expected] : rows)
    {
        fs::create_directory(directory);
        ASSERT_EQ(::chown(directory.c_str(), owner, 0), 0);
        ASSERT_EQ(::chmod(directory.c_str(), mode), 0);
        fs::create_directory_symlink(directory, link);
        ASSERT_EQ(::lchown(link.c_str(), linkOwner == NoLink ? 0 : linkOwner, 0), 0);
        ProducerOptions options = makeOptions();
        options.baseDirectory = linkOwner == NoLink ? directory : link;
        for (const auto use : {BaseDirectoryUse::Send, BaseDirectoryUse::Receive})
        {
            const Status status = prepareBaseDirectory(use, options.baseDirectory).status;
            const std::string& problem = status.getText();
            EXPECT_EQ(
                status.getCode(),
                expected == nullptr ? ErrorCode::Ok : ErrorCode::DirectoryNotTrusted)
                << problem << std::oct << mode;
            EXPECT_THAT(problem, HasSubstr(expected == nullptr ? "" : expected));
            EXPECT_THAT(
                problem, HasSubstr(expected == nullptr ? "" : "install -d -m 1777 -o root"));
        }
        Producer producer(options);
        EXPECT_EQ(producer.open(Format).getText().empty(), expected == nullptr);
        producer.close();
        fs::remove(link);
        fs::remove(directory);
    }

    // The effective user counts, not the real one.
    fs::create_directory(directory);
    ASSERT_EQ(::chown(directory.c_str(), Other, 0), 0);
    ASSERT_EQ(::chmod(getTempDirectory().c_str(), 0755), 0);
    for (const mode_t mode : {0700U, 0300U, 0600U, 0500U}) // sending needs w and x
    {
        ASSERT_EQ(::chmod(directory.c_str(), mode), 0);
        ProducerOptions options = makeOptions();
        options.baseDirectory = directory;
        Producer producer(options);
        ASSERT_EQ(::seteuid(Other), 0);
        const Status status = producer.open(Format);
        const BaseDirectory base = prepareBaseDirectory(BaseDirectoryUse::Receive, directory);
        producer.close();
        ASSERT_EQ(::seteuid(0), 0);
        EXPECT_EQ(base.status.getText(), "");
        EXPECT_EQ(base.writable, (mode & 0300) == 0300) << std::oct << mode;
        EXPECT_EQ(static_cast<bool>(status), (mode & 0300) == 0300) << status.getText();
        EXPECT_THAT(status.getText(), HasSubstr((mode & 0300) == 0300 ? "" : "is not writable"));
    }
    fs::remove(directory);
}

TEST_F(ProducerTest, ReceiversHaveBothConnectionsAndAreStillThere)
{
    for (const auto protocol : {NanomsgProtocol::PubSub, NanomsgProtocol::Pipeline})
    {
        OpenProducer producer(makeOptions(protocol));
        const bool isPipeline = protocol == NanomsgProtocol::Pipeline;
        // nanomsg counts such for ever if they leave while it takes them in.
        for (int i = 0; i < (isPipeline ? 1 : 200); ++i)
            greetAndLeave(producer.getSocketFile(), isPipeline);
        RawConnection client(isPipeline ? "vlx-nobody" : getSocketName(), isPipeline ? 0s : 10s);
        ASSERT_TRUE(isPipeline || client.readMessage()); // it has no main channel
        EXPECT_FALSE(producer.waitForReceivers(1, FrameNs * 2ns));
        EXPECT_EQ(producer.checkReceivers(), 0U);
        EXPECT_EQ(producer.getStatistics().receivers, 0U);
        client.close();

        // There nanomsg may never connect again after such a listener.
        if (isPipeline)
        {
            producer.close();
            ASSERT_EQ(producer.open(Format).getText(), "");
        }

        // Both connections, which end one by one.
        RawNanomsg channel(isPipeline ? NN_PULL : NN_SUB);
        const std::string& file = producer.getSocketFile();
        ASSERT_TRUE(isPipeline ? channel.bind("ipc://" + file) : channel.connect("ipc://" + file));
        for (const bool losesFile : {false, true})
        {
            RawConnection sidechannel(getSocketName());
            ASSERT_TRUE(producer.waitForReceivers(1, DefaultDeadline));
            if (losesFile) // the kernel knows no connection to it any more, nanomsg does
                fs::rename(file, file + "-aside");
            else
                sidechannel.close();
            EXPECT_TRUE(waitFor([&] { return producer.checkReceivers() == 0; })) << losesFile;
            EXPECT_FALSE(producer.waitForReceivers(1, 0ns)) << losesFile;
        }
        fs::rename(file + "-aside", file);
        channel.close();

        RecordedReceiver receiver(getSocketName());
        ASSERT_TRUE(producer.waitForReceivers(1, DefaultDeadline));
        // Until the receiver has read the announcement it refuses frames.
        const auto sendFrame = [&]
        {
            EXPECT_TRUE(producer.send(7, FrameNs, toBytes("DATA")));
            return receiver.count("frame 7") > 0;
        };
        EXPECT_TRUE(waitFor(sendFrame));
        EXPECT_EQ(producer.checkReceivers(), 1U);
        const Status status = producer.waitForReceivers(2, 0ns);
        EXPECT_EQ(status.getCode(), ErrorCode::TimedOut);
        EXPECT_THAT(status.getText(), HasSubstr("too few receivers"));
        receiver.stop();
        EXPECT_TRUE(waitFor([&] { return producer.getStatistics().receivers == 0; }));
        EXPECT_FALSE(producer.waitForReceivers(1, 0ns));
    }
}

TEST_F(ProducerTest, ACountOfReceiversIsOfOneOpeningOnly)
{
    OpenProducer producer(makeOptions());
    RawConnection sidechannel(getSocketName());
    RawNanomsg channel(NN_SUB);
    ASSERT_TRUE(channel.connect("ipc://" + producer.getSocketFile()));
    ASSERT_TRUE(producer.waitForReceivers(1)); // and counted
    const auto counted = std::chrono::steady_clock::now();
    producer.close();
    ASSERT_TRUE(producer.open(Format));
    RawNanomsg half(NN_SUB); // as many connections, and no receiver
    ASSERT_TRUE(half.connect("ipc://" + producer.getSocketFile()));
    while (std::chrono::steady_clock::now() < counted + 100ms) // so long a count may be used again
        ASSERT_EQ(producer.getStatistics().receivers, 0U);
}

TEST_F(ProducerTest, SocketFileIsNeverWiderThanItsMode)
{
    const mode_t umaskBefore = ::umask(0);
    const std::pair<SocketMode, mode_t> rows[] = {
        {SocketMode::Owner, 0700}, {SocketMode::Group, 0770}, {SocketMode::All, 0777}};
    for (const auto& [mode, birth] : rows)
    {
        ProducerOptions options = makeOptions();
        options.socketMode = mode;
        Producer producer(options);
        std::vector<mode_t> modes;
        mode_t umaskOfProcess = ~mode_t{0};
        log().onNext(
            DebugLog(StartsWith("Nanomsg watch FD")), // just after the file was made
            [&]
            {
                for (const auto& entry : fs::recursive_directory_iterator(getTempDirectory()))
                {
                    if (entry.is_socket())
                        modes.push_back(getMode(entry.path()) & 0777U);
                }
                std::ifstream status("/proc/self/status"); // of the first thread
                for (std::string word; status >> word && word != "Umask:";)
                    ;
                status >> std::oct >> umaskOfProcess;
            });
        ASSERT_EQ(producer.open(Format).getText(), "");
        EXPECT_THAT(modes, ElementsAre(birth));
        EXPECT_EQ(umaskOfProcess, 0U);
        EXPECT_EQ(::umask(0), 0U);
    }
    ::umask(umaskBefore);
}

TEST_F(ProducerTest, TakesWholeSamplesOnly)
{
    const std::tuple<StreamFormat, std::size_t, bool> rows[] = {
        {Format, 0, true},
        {Format, 4, true},
        {Format, 2, false}, // one channel
        {Format, 3, false},
        {Format, 4801, false},
        {{audioUtils::PcmFormat::S24LE, 48000, 2}, 6, true},
        {{audioUtils::PcmFormat::S24LE, 48000, 2}, 8, false},
        {{audioUtils::PcmFormat::U8, 8000, 1}, 5, true}};
    OpenProducer producer(makeOptions());
    std::uint64_t numSent = 0;
    for (const auto& [format, bytes, isSent] : rows)
    {
        ASSERT_TRUE(producer.setFormat(format));
        EXPECT_EQ(
            producer.send(0, FrameNs, Buffer(bytes)).getCode(),
            isSent ? ErrorCode::Ok : ErrorCode::InvalidArgument)
            << bytes;
        numSent += isSent ? 1 : 0;
        EXPECT_EQ(producer.getStatistics().frames, numSent);
    }
    EXPECT_FALSE(producer.setFormat({audioUtils::PcmFormat::U8, 0, 1}));
    EXPECT_TRUE(producer.send(0, FrameNs, Buffer(5))) << "the former format stays";
    ASSERT_TRUE(producer.setFormat(Format));
    EXPECT_THAT(producer.send(0, FrameNs, Buffer(6)).getText(), HasSubstr("6 bytes of media data"));
    PcmPayloader payloader; // sizes of any other codec are its own
    ASSERT_TRUE(producer.setFormat(payloader));
    EXPECT_TRUE(producer.send(0, FrameNs, Buffer(5)));
}

TEST_F(ProducerTest, TwoThreadsAtOnceAreAMistakeThatIsTold)
{
    const std::function<void(Producer&)> calls[] = {
        [](Producer& producer) { producer.close(); },
        [](Producer& producer) { producer.checkReceivers(); },
        [](Producer& producer) { static_cast<void>(producer.setFormat(Format)); }};
    for (const auto& call : calls)
    {
        EXPECT_EXIT(
            {
                Producer producer(makeOptions(NanomsgProtocol::Pipeline));
                static_cast<void>(producer.open(Format));
                std::thread sending(
                    [&] { static_cast<void>(producer.send(0, FrameNs, toBytes("DATA"))); });
                static_cast<void>(log().waitFor(TraceLog(StartsWith("Sending data with"))));
                call(producer);
                std::_Exit(0);
            },
            ::testing::KilledBySignal(SIGABRT), HasSubstr("stop() and join it before close()"));
    }
}

// The test calls the library while the log is locked, which the sanitizer takes for the library's
// order of locks.
#ifndef __SANITIZE_THREAD__
TEST_F(ProducerTest, TextIsCompleteWithoutTheLog)
{
    const std::string base = getTempDirectory() + "/base";
    const std::string name = getSocketName();
    std::optional<Sender> rival;
    const int next = ::dup(0);
    ::close(next);
    const struct
    {
        const char* name;
        const char* takes; // the last log line before the step that fails
        std::function<void()> sabotage;
        ErrorCode code;
        const char* text;
    } rows[] = {
        {"directory", "Setting up sender", [&] { fs::remove_all(base); }, ErrorCode::Failed,
         "Could not create temporary directory for nanomsg SP socket: No such file or directory"},
        {"name", "Setting up sender",
         [&]
         {
             rival.emplace();
             ASSERT_TRUE(rival->initializeSender(
                 name, {}, {}, 0, TimeSyncProtocol::MonotonicSystemClock, NanomsgProtocol::PubSub));
         },
         ErrorCode::NameTaken, "is taken by another sender"}};
    for (const auto& row : rows)
    {
        fs::create_directory(base);
        ProducerOptions options = makeOptions();
        options.baseDirectory = base;
        Producer producer(options);
        log().onNext(TraceLog(StartsWith(row.takes)), row.sabotage);
        const Status status = producer.open(Format);
        EXPECT_EQ(status.getCode(), row.code) << row.name;
        EXPECT_THAT(status.getText(), HasSubstr(row.text)) << row.name;
        rival.reset();
        ::close_range(static_cast<unsigned>(next), ~0U, 0); // that a failed sender leaves open
    }
    fs::remove_all(base);

    // The transport would abort the process.
    Producer producer(makeOptions());
    Status status;
    {
        const ResourceLimit limit(RLIMIT_NOFILE, static_cast<rlim_t>(next) + 10);
        status = producer.open(Format);
    }
    EXPECT_EQ(status.getCode(), ErrorCode::OutOfResources);
    EXPECT_THAT(status.getText(), HasSubstr("Too many open files"));
    EXPECT_EQ(producer.open(Format).getText(), "");
}
#endif

TEST_F(ProducerTest, MovesWhileItIsOpen)
{
    OpenProducer first(makeOptions());
    Producer second(std::move(first));
    EXPECT_TRUE(second.send(0, FrameNs, {}));
    ProducerOptions options = makeOptions();
    options.name += "-b";
    Producer other(options);
    ASSERT_EQ(other.open(Format).getText(), "");
    other = std::move(second); // closes what it had
    EXPECT_EQ(other.getName(), getSocketName());
    EXPECT_EQ(listTempDirectory().size(), 1U);
    EXPECT_TRUE(other.send(0, FrameNs, {}));
    EXPECT_EQ(other.getStatistics().frames, 2U);
}

TEST_F(ProducerTest, CrashLoopLeavesOneDirectoryAtMost)
{
    const auto countDirectories = [this] { return listTempDirectory().size(); };
    const std::string bare = getTempDirectory() + "/VlxSender-abcdef"; // without the kit
    const std::string locked = getTempDirectory() + "/VlxSender-locked";
    const std::string filled = getTempDirectory() + "/VlxSender-filled";
    const std::string foreign = getTempDirectory() + "/VlxSender-foreig";
    for (const std::string& directory : {bare, locked, filled, foreign})
    {
        fs::create_directory(directory);
        ASSERT_EQ(::chmod(directory.c_str(), directory == bare ? 0700 : 01700), 0);
    }
    std::ofstream(filled + "/precious") << "x";
    const bool isForeign = ::chown(foreign.c_str(), 65534, 65534) == 0;
    EXPECT_TRUE(isForeign || fs::remove(foreign));
    {
        const Descriptor directory(::open(locked.c_str(), O_PATH | O_CLOEXEC));
        DirectoryLock lock;
        ASSERT_EQ(lock.take(directory.get()), 0);
        DirectoryLock second;
        EXPECT_EQ(second.take(directory.get()), EWOULDBLOCK);
        const SenderProcess living(getSocketName() + "-a", NanomsgProtocol::Pipeline);
        const std::size_t before = countDirectories();
        for (int i = 0; i < 4; ++i)
        {
            const auto protocol = i % 2 == 0 ? NanomsgProtocol::PubSub : NanomsgProtocol::Pipeline;
            SenderProcess crashing(getSocketName(), protocol);
            EXPECT_EQ(countDirectories(), before + 1) << i;
            crashing.kill();
        }
        EXPECT_TRUE(fs::exists(living.getDirectory()));
    }
    OpenProducer last(makeOptions());
    EXPECT_FALSE(fs::exists(locked));
    const std::size_t numKept = isForeign ? 3 : 2; // that cannot be judged
    EXPECT_EQ(countDirectories(), numKept + 1);    // and its own
    last.close();
    EXPECT_EQ(countDirectories(), numKept);
    fs::remove_all(foreign);
    fs::remove_all(filled);
    fs::remove(bare);
}

TEST_F(ProducerTest, StopAndInterruptionEndWhateverWaits)
{
    const struct
    {
        const char* name;
        bool hasClient; // so that a new sequence is sent, and waits
        std::function<Status(Producer&)> wait;
    } rows[] = {
        {"send", false, [](Producer& producer) { return producer.send(0, FrameNs, {}); }},
        {"sequence", true,
         [](Producer& producer) {
             return producer.setFormat({audioUtils::PcmFormat::U8, 8000, 1});
         }},
        {"receivers", false, [](Producer& producer) { return producer.waitForReceivers(1); }}};
    using enum ErrorCode;
    for (std::size_t i = 0; i < 2 * std::size(rows); ++i)
    {
        const auto& row = rows[i / 2];
        const ErrorCode ending = i % 2 == 0 ? Stopped : Interrupted;
        OpenProducer producer(makeOptions(NanomsgProtocol::Pipeline));
        RawConnection client(row.hasClient ? getSocketName() : "vlx-nobody", {});
        ASSERT_TRUE(!row.hasClient || client.readMessage());
        log().clear();
        std::atomic<bool> hasReturned = false;
        std::thread waiting(
            [&]
            {
                EXPECT_EQ(row.wait(producer).getCode(), ending) << row.name;
                hasReturned = true;
            });
        EXPECT_TRUE(
            row.name == std::string("receivers") ||
            log().waitFor(TraceLog(StartsWith("Sending data with"))));
        EXPECT_FALSE(hasReturned) << row.name;
        if (ending == Stopped)
            producer.stop();
        else
            producer.interrupt(true);
        waiting.join();
        EXPECT_EQ(producer.send(0, FrameNs, {}).getCode(), ending) << row.name;
        EXPECT_EQ(producer.getStatistics().frames, 0U) << row.name;
        producer.interrupt(false);
        client.close();
        RecordedReceiver receiver(getSocketName());
        EXPECT_EQ(producer.send(5, FrameNs, {}).getCode(), ending == Stopped ? Stopped : Ok);
        EXPECT_TRUE(ending == Stopped || receiver.waitForEvent("frame 5")) << row.name;
    }

    Producer never(makeOptions());
    never.stop();
    EXPECT_EQ(never.open(Format).getCode(), ErrorCode::Stopped);

    // While it opens: the set-up would switch sending on again.
    Producer* opening = nullptr;
    ProducerOptions options = makeOptions(NanomsgProtocol::Pipeline);
    options.realTime = {RealTimeUse::Try, 0};
    options.onNotice = [&opening](const std::string&) { opening->stop(); };
    Producer stopped(options);
    opening = &stopped;
    EXPECT_EQ(stopped.open(Format).getCode(), ErrorCode::Stopped);
    EXPECT_TRUE(listTempDirectory().empty());
}

// The test calls the library while the log is locked, which the sanitizer takes for the library's
// order of locks.
#ifndef __SANITIZE_THREAD__
TEST_F(ProducerTest, InterruptionLosesNoFrameUntold)
{
    // At every step of a send, and taken back at once or later. The wakeup that it leaves behind
    // must not end the next wait.
    for (const char* const step : {"Payloader wrapped", "Sending data with"})
    {
        for (const bool isTakenBackAtOnce : {true, false})
        {
            OpenProducer producer(makeOptions(NanomsgProtocol::Pipeline));
            log().onNext(
                TraceLog(StartsWith(step)),
                [&]
                {
                    producer.interrupt(true);
                    if (isTakenBackAtOnce)
                        producer.interrupt(false);
                });
            EXPECT_EQ(producer.send(1, FrameNs, {}).getCode(), ErrorCode::Interrupted) << step;
            producer.interrupt(false);
            auto sending = std::async(
                std::launch::async, [&] { return producer.send(2, FrameNs, {}).getCode(); });
            EXPECT_EQ(sending.wait_for(50ms), std::future_status::timeout) << step;
            RecordedReceiver receiver(getSocketName());
            EXPECT_TRUE(receiver.waitForEvent("frame 2")) << step << isTakenBackAtOnce;
            EXPECT_EQ(sending.get(), ErrorCode::Ok);
            EXPECT_EQ(producer.getStatistics().frames, 1U);
        }
    }

    // What does not block sends what it has begun.
    OpenProducer producer(makeOptions());
    RecordedReceiver receiver(getSocketName());
    ASSERT_TRUE(producer.waitForReceivers(1));
    ASSERT_TRUE(producer.send(0, FrameNs, {}));
    log().onNext(TraceLog(StartsWith("Payloader wrapped")), [&] { producer.interrupt(true); });
    EXPECT_TRUE(producer.send(1, FrameNs, {}));
    EXPECT_TRUE(receiver.waitForEvent("frame 1"));
    EXPECT_EQ(producer.send(2, FrameNs, {}).getCode(), ErrorCode::Interrupted);
    producer.interrupt(false);
    EXPECT_TRUE(producer.send(3, FrameNs, {}));
    EXPECT_TRUE(receiver.waitForEvent("frame 3"));
}
#endif

TEST_F(ProducerTest, TellsWhenReceiversComeAndGo)
{
    std::vector<std::size_t> counts;
    ProducerOptions options = makeOptions();
    options.onReceivers = [&counts](std::size_t count) { counts.push_back(count); };
    OpenProducer producer(options);
    const auto waitForCount = [&](std::size_t count)
    {
        return waitFor(
            [&]
            { return producer.send(0, FrameNs, {}) && !counts.empty() && counts.back() == count; });
    };
    RecordedReceiver first(getSocketName());
    ASSERT_TRUE(producer.waitForReceivers(1, DefaultDeadline));
    EXPECT_THAT(counts, ElementsAre(1));
    RecordedReceiver second(getSocketName());
    EXPECT_TRUE(waitForCount(2));
    first.stop();
    EXPECT_TRUE(waitForCount(1));

    // Without a call that tells.
    const auto waitForReceivers = [&](std::size_t count)
    { return waitFor([&] { return producer.getStatistics().receivers == count; }); };
    second.stop();
    EXPECT_TRUE(waitForReceivers(0));
    ASSERT_TRUE(second.start(getSocketName()));
    EXPECT_TRUE(waitForReceivers(1));
    EXPECT_TRUE(producer.send(0, FrameNs, {}));
    second.stop();
    EXPECT_TRUE(waitFor([&] { return producer.checkReceivers() == 0; }));
    EXPECT_THAT(counts, ElementsAre(1, 2, 1, 0, 1, 0));
}

TEST_F(ProducerTest, LastFrameArrivesHoweverLarge)
{
    RecordedReceiver receiver(getSocketName());
    // A busy machine may need long for so large a frame; so long the producer waits for it.
    constexpr TimeValue LongFrameNs = 200 * FrameNs;
    OpenProducer producer(makeOptions(NanomsgProtocol::Pipeline));
    ASSERT_TRUE(producer.waitForReceivers(1));
    const Buffer large(1 << 20, 0x31);
    EXPECT_TRUE(producer.send(1, LongFrameNs, large));
    producer.close();
    EXPECT_TRUE(receiver.waitForEvent("frame 1"));
    EXPECT_TRUE(receiver.getFrames().at(0).data == large); // too much to be printed
    receiver.stop();
    for (const auto duration : {0ms, 10ms, 100ms, 2000ms})
        EXPECT_EQ(getTailWait(duration), std::max(duration, 100ms));
}

TEST_F(ProducerTest, StopCutsTheTailOfALongFrame)
{
    constexpr TimeValue HourNs = 3600 * TimeValue{1'000'000'000};
    for (const TimeValue duration : {HourNs, std::numeric_limits<TimeValue>::max()})
    {
        OpenProducer producer(makeOptions());
        const auto sent = std::chrono::steady_clock::now();
        ASSERT_TRUE(producer.send(0, duration, toBytes("DATA")));
        std::atomic<bool> isClosed = false;
        std::thread closing(
            [&]
            {
                producer.close();
                isClosed = true;
            });
        std::this_thread::sleep_until(sent + 2 * MinTailWait); // so long it has waited at least
        EXPECT_FALSE(isClosed) << duration;
        producer.stop();
        closing.join(); // would take an hour
    }

    // What the transport needs, it gets.
    OpenProducer producer(makeOptions());
    const auto sent = std::chrono::steady_clock::now();
    ASSERT_TRUE(producer.send(0, HourNs, toBytes("DATA")));
    producer.stop();
    producer.close();
    EXPECT_GE(std::chrono::steady_clock::now() - sent, MinTailWait);
}

TEST_F(ProducerTest, AnnouncesAgainWhenItMayHaveBeenMissed)
{
    OpenProducer producer(makeOptions());
    RawConnection client(getSocketName());
    ASSERT_TRUE(client.readMessage());
    EXPECT_EQ(client.readMessage(), fromHex("01 00 0100 50434D41 80BB0000 02 02"));

    // Between the two connections it would miss a sequence that starts now.
    RawNanomsg sub(NN_SUB);
    ASSERT_TRUE(sub.connect("ipc://" + producer.getSocketFile()));
    ASSERT_TRUE(producer.waitForReceivers(1));
    EXPECT_EQ(sub.receive(), fromHex("01 00 0200 50434D41 80BB0000 02 02"));

    const auto sendAndReceive = [&]
    {
        EXPECT_TRUE(producer.send(1, 2, fromHex("D0D1D2D3")));
        return sub.receive();
    };
    const std::string frame = "0100000000000000 0200000000000000 D0D1D2D3";
    EXPECT_TRUE(producer.setFormat(Format));
    EXPECT_EQ(sendAndReceive(), fromHex("02 00 0200" + frame));
    EXPECT_TRUE(producer.setFormat({audioUtils::PcmFormat::U8, 8000, 1}));
    EXPECT_EQ(sub.receive(), fromHex("01 00 0300 50434D41 401F0000 01 01"));
    EXPECT_EQ(sendAndReceive(), fromHex("02 00 0300" + frame));
    PcmPayloader payloader;
    EXPECT_TRUE(producer.setFormat(payloader));
    EXPECT_EQ(sub.receive(), fromHex("01 00 0400 50434D41"));
    EXPECT_TRUE(producer.setFormat({audioUtils::PcmFormat::U8, 8000, 1})); // now another one
    EXPECT_EQ(sub.receive(), fromHex("01 00 0500 50434D41 401F0000 01 01"));
    EXPECT_TRUE(producer.announce()); // the same once more
    EXPECT_EQ(sub.receive(), fromHex("01 00 0600 50434D41 401F0000 01 01"));
    EXPECT_EQ(producer.getStatistics().sequences, 6U);

    ASSERT_EQ(producer.checkReceivers(), 1U);
    log4cplus::Logger::getInstance("Vellox").setLogLevel(log4cplus::WARN_LOG_LEVEL);
    const std::size_t before = countAllocationsOfThread();
    EXPECT_TRUE(producer.send(3, 4, ByteView()));
    EXPECT_EQ(countAllocationsOfThread(), before);
    log4cplus::Logger::getInstance("Vellox").setLogLevel(log4cplus::ALL_LOG_LEVEL);

    // As many as at the last look, but not the same.
    const auto waitForCount = [&producer](std::size_t count)
    { return waitFor([&] { return producer.getStatistics().receivers == count; }); };
    sub.close();
    ASSERT_TRUE(waitForCount(0));
    EXPECT_TRUE(producer.setFormat(Format));
    RawNanomsg successor(NN_SUB);
    ASSERT_TRUE(successor.connect("ipc://" + producer.getSocketFile()));
    ASSERT_TRUE(waitForCount(1));
    EXPECT_EQ(producer.checkReceivers(), 1U);
    EXPECT_EQ(successor.receive(), fromHex("01 00 0800 50434D41 80BB0000 02 02"));
}

TEST_F(ProducerTest, TwoStreamsOfOneProcessSurviveAForkAndTheirWatchers)
{
    OpenProducer first(makeOptions());
    ProducerOptions options = makeOptions();
    options.name += "-b";
    OpenProducer second(options);
    EXPECT_NE(first.getSocketFile(), second.getSocketFile());

    // Copies without their threads: only what belongs to the transport stays open.
    EXPECT_TRUE(runInFork(
        [&]
        {
            const std::size_t before = listDescriptors().size();
            first.stop();
            first.close();
            second.close();
            return listDescriptors().size() + 10 <= before && second.getStatistics().receivers == 0;
        }));

    RecordedReceiver receiver(options.name);
    ASSERT_TRUE(second.waitForReceivers(1));
    auto watching = std::async(
        std::launch::async,
        [&]
        {
            while (second.getStatistics().frames < 100)
                EXPECT_LE(second.getStatistics().receivers, 1U);
        });
    for (TimeValue i = 1; i <= 100; ++i)
        EXPECT_TRUE(second.send(i, FrameNs, toBytes("DATA")));
    watching.get();
    second.close();
    EXPECT_TRUE(receiver.waitForEvent("frame"));
    EXPECT_EQ(second.getStatistics().frames, 100U);
}

TEST_F(ProducerTest, ThreadsRunInRealTimeWhereTheUserMay)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root, and a second user";
    const rlimit none{0, 0};
    ASSERT_EQ(::setrlimit(RLIMIT_RTPRIO, &none), 0);
    ASSERT_EQ(::chmod(getTempDirectory().c_str(), 01777), 0);
    const std::tuple<uid_t, RealTimeUse, bool, std::size_t, int> rows[] = {
        {0, RealTimeUse::Off, true, 0, SCHED_OTHER},
        {0, RealTimeUse::Try, true, 0, SCHED_RR},
        {0, RealTimeUse::Require, true, 0, SCHED_RR},
        {65534, RealTimeUse::Try, true, 1, SCHED_OTHER},
        {65534, RealTimeUse::Require, false, 0, SCHED_OTHER}};
    for (const auto& [user, use, opens, numNotices, policy] : rows)
    {
        std::vector<std::string> notices;
        ProducerOptions options = makeOptions();
        options.realTime = {use, 7};
        options.onNotice = [&](const std::string& notice) { notices.push_back(notice); };
        const auto before = listThreads();
        ASSERT_EQ(::seteuid(user), 0);
        Producer producer(options);
        const Status status = producer.open(Format);
        EXPECT_EQ(status.getCode(), opens ? ErrorCode::Ok : ErrorCode::NotPermitted);
        EXPECT_EQ(::sched_getscheduler(0), SCHED_OTHER);
        std::size_t numNew = 0;
        for (const auto& [thread, name] : listThreads())
        {
            if (before.contains(thread))
                continue;
            ++numNew;
            EXPECT_EQ(::sched_getscheduler(thread), policy);
        }
        EXPECT_EQ(numNew, opens ? 2U : 0U); // the library's and nanomsg's
        EXPECT_EQ(notices.size(), numNotices);
        notices.push_back(status.getText());
        EXPECT_THAT(notices[0], HasSubstr(user == 0 ? "" : "RLIMIT_RTPRIO is 0"));
        producer.close();
        ASSERT_EQ(::seteuid(0), 0);
        EXPECT_TRUE(waitFor([&before] { return listThreads() == before; }));
    }
}

} // unnamed namespace

} // namespace vlx::kit
