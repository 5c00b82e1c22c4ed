#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <Bell.hpp>
#include <SenderQuestion.hpp>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vlxkit/Discovery.hpp>
#include <vlxkit/Producer.hpp>
#include <vlxkit/PromptStop.hpp>

#include "support/ChildProcess.hpp"
#include "support/HostilePeer.hpp"
#include "support/RawSender.hpp"
#include "support/RecordedReceiver.hpp"
#include "support/VlxTest.hpp"

namespace vlx::kit
{

namespace
{

namespace fs = std::filesystem;
using namespace vlx::testing;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr uid_t OtherUser = 65534;

class DiscoveryTest : public VlxTest
{
protected:
    /// @return this test's senders as text: name, process, user, receivers, socket file
    std::vector<std::string> list() const
    {
        std::vector<std::string> lines;
        for (const SenderEntry& entry : listSenders().senders)
        {
            if (entry.name.starts_with(getSocketName()))
                lines.push_back(toLine(
                    entry.name, entry.process, entry.command, entry.receivers, entry.socketFile));
        }
        return lines;
    }

    static std::string toLine(
        const std::string& name,
        pid_t process,
        const std::string& command,
        std::size_t receivers,
        const std::string& socketFile)
    {
        return name + " " + std::to_string(process) + " " + command + " " +
               std::to_string(receivers) + " " + socketFile;
    }

    /// Serves one connection with a given conversation while it is probed.
    SenderProbe probe(const std::function<void(RawConnection&)>& converse) const
    {
        RawSidechannelServer server(getSocketName());
        std::thread peer(
            [&]
            {
                RawConnection connection = server.accept();
                converse(connection);
            });
        SenderProbe answer = probeSender(getSocketName(), DefaultDeadline);
        peer.join();
        return answer;
    }
};

class DiscoveryAgainstTricks : public DiscoveryTest, public ::testing::WithParamInterface<Trick>
{
};

INSTANTIATE_TEST_SUITE_P(
    Tricks,
    DiscoveryAgainstTricks,
    AllTricks,
    ::testing::PrintToStringParamName());

void makeOld(const std::string& path)
{
    timespec times[2] = {};
    ::clock_gettime(CLOCK_REALTIME, &times[0]);
    times[0].tv_sec -= 90;
    times[1] = times[0];
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
}

const Buffer PcmSequence = makeSidechannelMessage(makeSequenceInfo(7));

TEST_F(DiscoveryTest, ListsSendersAndNothingElse)
{
    const std::string& name = getSocketName();
    const SenderProcess pubSub(name + "-b", NanomsgProtocol::PubSub);
    const SenderProcess pipeline(name + "-c", NanomsgProtocol::Pipeline);
    SenderProcess killed(name + "-d", NanomsgProtocol::PubSub);
    RawSidechannelServer ownListener(name + "-e"); // that a host may have for other purposes
    RecordedReceiver receiver;
    ASSERT_TRUE(receiver.start(name));
    Producer own({.name = name});
    ASSERT_TRUE(own.open(StreamFormat())) << own.getProblem();
    ASSERT_TRUE(own.waitForReceivers(1));

    const std::string command = "SenderProcess";
    const std::string ofOwn = toLine(name, ::getpid(), "DiscoveryTest", 1, own.getSocketFile());
    const std::string ofPubSub =
        toLine(name + "-b", pubSub.getPid(), command, 0, pubSub.getSocketFile());
    const std::string ofPipeline = toLine(name + "-c", pipeline.getPid(), command, 0, "");
    // The producer's own probe of its stream may be closing still.
    ASSERT_TRUE(waitFor([&] { return ::testing::Value(list(), Contains(ofOwn)); }));
    EXPECT_THAT(
        list(), ElementsAre(
                    ofOwn, ofPubSub, ofPipeline,
                    toLine(name + "-d", killed.getPid(), command, 0, killed.getSocketFile())));
    killed.kill();
    EXPECT_THAT(list(), ElementsAre(ofOwn, ofPubSub, ofPipeline));

    if (::geteuid() == 0)
    {
        ASSERT_EQ(::seteuid(OtherUser), 0);
        EXPECT_THAT(list(), Not(Contains(ofPubSub)));
        EXPECT_THAT(listSenders().hidden, Contains(pubSub.getPid()));
        ASSERT_EQ(::seteuid(0), 0);
    }
    own.close();
    receiver.stop();
    fs::remove_all(killed.getDirectory());
}

TEST_F(DiscoveryTest, RemovesWhatDeadSendersLeftAndNothingElse)
{
    const std::string& name = getSocketName();
    const std::string& base = getTempDirectory();
    const SenderProcess pubSub(name + "-a", NanomsgProtocol::PubSub);
    const SenderProcess pipeline(name + "-b", NanomsgProtocol::Pipeline);
    SenderProcess dead(name + "-c", NanomsgProtocol::PubSub);
    SenderProcess deadPipeline(name + "-d", NanomsgProtocol::Pipeline);
    SenderProcess young(name + "-e", NanomsgProtocol::PubSub);
    SenderProcess filled(name + "-f", NanomsgProtocol::PubSub);
    SenderProcess linked(name + "-g", NanomsgProtocol::PubSub);
    for (SenderProcess* const process : {&dead, &deadPipeline, &young, &filled, &linked})
        process->kill();
    std::ofstream(filled.getDirectory() + "/precious") << "x";
    const std::string elsewhere = base + "/elsewhere";
    fs::rename(linked.getDirectory(), elsewhere);
    fs::create_directory_symlink(elsewhere, linked.getDirectory());
    fs::create_directory(base + "/VlxSender-longer1");
    using Processes = std::initializer_list<const SenderProcess*>;
    for (const auto* const process : Processes{&pubSub, &pipeline, &dead, &deadPipeline, &filled})
        makeOld(process->getDirectory());
    makeOld(elsewhere);
    makeOld(base + "/VlxSender-longer1");

    // It could be any directory's sender.
    pipeline.signal(SIGSTOP);
    EXPECT_THAT(removeDeadDirectories(), IsEmpty());
    pipeline.signal(SIGCONT);

    std::vector<std::string> removed;
    std::vector<std::string> kept;
    std::vector<DeadDirectory> found;
    // A sender of another test that stands still puts every directory of this user in doubt.
    ASSERT_TRUE(waitFor(
        [&] { return !(found = removeDeadDirectories(base)).empty(); }, 4 * DefaultDeadline));
    for (const DeadDirectory& directory : found)
    {
        (directory.problem.empty() ? removed : kept).push_back(directory.path);
        EXPECT_EQ(fs::exists(directory.path), !directory.problem.empty());
    }
    std::vector<std::string> expected = {dead.getDirectory(), deadPipeline.getDirectory()};
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(removed, expected);
    EXPECT_THAT(kept, ElementsAre(filled.getDirectory()));
    EXPECT_TRUE(fs::exists(filled.getDirectory() + "/precious"));
    EXPECT_TRUE(fs::exists(elsewhere + "/nanomsgChannel.ipc"));
    for (const auto* const process : Processes{&pubSub, &pipeline, &young})
        EXPECT_TRUE(fs::exists(process->getDirectory()));
    EXPECT_TRUE(fs::exists(base + "/VlxSender-longer1"));

    fs::remove(linked.getDirectory());
    for (const std::string& path :
         {young.getDirectory(), filled.getDirectory(), elsewhere, base + "/VlxSender-longer1"})
        fs::remove_all(path);
}

TEST_F(DiscoveryTest, ProbeTellsWhetherThisUserMayJoin)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs a second user";
    ASSERT_EQ(::chmod(getTempDirectory().c_str(), 0755), 0);
    struct Row
    {
        NanomsgProtocol protocol;
        SocketMode mode;
        mode_t seenByOther;
        bool otherMayJoin;
    };
    const Row rows[] = {
        {NanomsgProtocol::PubSub, SocketMode::Owner, 0, false},
        {NanomsgProtocol::PubSub, SocketMode::All, 0666, true},
        {NanomsgProtocol::Pipeline, SocketMode::Owner, 0, false},
        {NanomsgProtocol::Pipeline, SocketMode::All, 0, true}};
    for (const Row& row : rows)
    {
        Producer producer(
            {.name = getSocketName(), .protocol = row.protocol, .socketMode = row.mode});
        ASSERT_TRUE(producer.open({audioUtils::PcmFormat::U8, 8000, 1}));
        for (const uid_t user : {uid_t{0}, OtherUser})
        {
            ASSERT_EQ(::seteuid(user), 0);
            const SenderProbe answer = probeSender(getSocketName(), DefaultDeadline);
            ASSERT_EQ(::seteuid(0), 0);
            EXPECT_EQ(answer.sequenceNr, 1);
            EXPECT_EQ(answer.format, (StreamFormat{audioUtils::PcmFormat::U8, 8000, 1}));
            EXPECT_EQ(answer.socketFile, producer.getSocketFile());
            EXPECT_EQ(answer.mayJoin, user == 0 || row.otherMayJoin);
            EXPECT_TRUE(user == 0 || answer.socketFileMode == row.seenByOther);
        }
        producer.close();
    }
}

TEST_F(DiscoveryTest, ProbeTakesNoPathThatIsNoSenders)
{
    const std::string directory = getTempDirectory() + "/VlxSender-abcdef";
    const std::string served = directory + "/nanomsgChannel.ipc";
    const std::string empty = getTempDirectory() + "/VlxSender-ABC123";
    fs::create_directory(directory);
    fs::create_directory(empty);
    RawNanomsg channel(NN_PUB);
    ASSERT_TRUE(channel.bind("ipc://" + served));
    RawNanomsg other(NN_PUB);
    ASSERT_TRUE(other.bind("ipc://" + getTempDirectory() + "/other"));
    struct Row
    {
        std::string uri;
        bool inPubSub;
        bool inPipeline;
    };
    const Row rows[] = {
        {"ipc://" + served, true, true},
        {"ipc://" + empty + "/nanomsgChannel.ipc", false, true},
        {"ipc://" + directory + "/none", false, false},
        {"ipc://" + getTempDirectory() + "/other", false, false},
        {"ipc://" + directory + "/../other", false, false},
        {"ipc://VlxSender-abcdef/nanomsgChannel.ipc", false, false},
        {"ipc:///VlxSender-abcdef", false, false},
        {"ipc://" + std::string(108 - empty.size() - 19, '/') + empty + "/nanomsgChannel.ipc",
         false, false},
        {"tcp://127.0.0.1:9", false, false},
        {"", false, false}};
    for (const Row& row : rows)
    {
        for (const auto protocol :
             {NanomsgProtocol::PubSub, NanomsgProtocol::Pipeline, NanomsgProtocol::Unknown})
        {
            const SenderProbe answer = probe(
                [&](RawConnection& connection)
                {
                    connection.send(makeSidechannelMessage(makeInitialInfo(row.uri, protocol)));
                    connection.send(PcmSequence);
                });
            const bool isTaken = protocol == NanomsgProtocol::PubSub     ? row.inPubSub
                                 : protocol == NanomsgProtocol::Pipeline ? row.inPipeline
                                                                         : false;
            ASSERT_TRUE(answer.initialInfo);
            EXPECT_EQ(answer.socketFile, isTaken ? row.uri.substr(6) : "") << row.uri;
            EXPECT_EQ(answer.mayJoin, isTaken) << row.uri;
            EXPECT_EQ(answer.sequenceNr, 7);
        }
    }
    channel.close();
    other.close();
    fs::remove(getTempDirectory() + "/other");
    fs::remove_all(directory);
    fs::remove_all(empty);
}

TEST_F(DiscoveryTest, NoAnswerStopsOrHoldsTheProcess)
{
    const Buffer info =
        makeSidechannelMessage(makeInitialInfo("ipc:///x", NanomsgProtocol::PubSub));
    const Buffer opus = makeSidechannelMessage(fromHex("01 00 0100 4f505553 aa"));
    const auto join = [](Buffer left, const Buffer& right)
    {
        left.insert(left.end(), right.begin(), right.end());
        return left;
    };
    struct Row
    {
        const char* name;
        Buffer bytes;
        bool hasInfo;
        bool hasFourcc;
        bool hasFormat;
    };
    const Row rows[] = {
        {"nothing", {}, false, false, false},
        {"half a prefix", fromHex("05 00"), false, false, false},
        {"huge length", fromHex("ff ff ff ff 00"), false, false, false},
        {"empty message", makeSidechannelMessage({}), false, false, false},
        {"no info", makeSidechannelMessage(toBytes("without an end")), false, false, false},
        {"cut info", makeSidechannelMessage(Buffer(info.begin() + 4, info.end() - 1)), false, false,
         false},
        {"info alone", info, true, false, false},
        {"short sequence", join(info, makeSidechannelMessage(fromHex("01 00 01 00"))), true, false,
         false},
        {"frame", join(info, makeSidechannelMessage(fromHex("02 00 01 00 4f 50 55 53"))), true,
         false, false},
        {"other codec", join(info, opus), true, true, false},
        {"PCM without rate", join(info, makeSidechannelMessage(fromHex("01 00 0100 50434D41"))),
         true, true, false},
        {"PCM", join(info, PcmSequence), true, true, true}};
    for (const Row& row : rows)
    {
        const SenderProbe answer =
            probe([&row](RawConnection& connection) { connection.send(row.bytes, 3); });
        EXPECT_TRUE(answer.reached) << row.name;
        EXPECT_FALSE(answer.busy || answer.mayJoin) << row.name;
        EXPECT_EQ(answer.initialInfo.has_value(), row.hasInfo) << row.name;
        EXPECT_EQ(answer.fourcc.has_value(), row.hasFourcc) << row.name;
        EXPECT_EQ(answer.format.has_value(), row.hasFormat) << row.name;
    }
    EXPECT_FALSE(probeSender(getSocketName(), DefaultDeadline).reached);

    probe(
        [](RawConnection& connection)
        {
            connection.send(fromHex("01001000"));
            EXPECT_TRUE(connection.waitForClose(DefaultDeadline / 2)) << "it would take a MiB";
        });

    // Nobody accepts.
    RawSidechannelServer server(getSocketName());
    EXPECT_TRUE(isNameTaken(getSocketName()));
    static constexpr auto NoWait = std::chrono::milliseconds(0);
    EXPECT_TRUE(waitFor([this] { return probeSender(getSocketName(), NoWait).busy; }));
    const SenderProbe busy = probeSender(getSocketName(), DefaultDeadline);
    EXPECT_TRUE(busy.busy && busy.reached && !busy.initialInfo && !busy.closedEarly);
    server.close();
    EXPECT_FALSE(isNameTaken(getSocketName()));
}

TEST_P(DiscoveryAgainstTricks, HoldsNoQuestion)
{
    HostilePeer peer(GetParam(), getTempDirectory());
    if (!peer.getObstacle().empty())
        GTEST_SKIP() << peer.getObstacle();
    EXPECT_TRUE(peer.isPrompt(
        [&]
        {
            const SenderProbe answer =
                probe([&](RawConnection& connection) { EXPECT_TRUE(peer.play(connection)); });
            EXPECT_TRUE(answer.reached && answer.closedEarly && !answer.initialInfo);
        }));

    // One that is asked no further.
    RawSidechannelServer server(getSocketName());
    auto question = std::make_unique<SenderQuestion>(getSocketName());
    ASSERT_TRUE(peer.play(server.accept()));
    EXPECT_TRUE(peer.isPrompt([&] { question.reset(); }));
    EXPECT_TRUE(peer.isLockKept());
    server.close();
}

TEST_F(DiscoveryTest, BellIsHeardByWaitingReceiversOnly)
{
    Descriptor watcher(::inotify_init1(IN_CLOEXEC));
    ::inotify_add_watch(watcher.get(), getTempDirectory().c_str(), IN_CREATE);
    ASSERT_TRUE(ringBell());
    alignas(inotify_event) char event[512] = {};
    ASSERT_GT(::read(watcher.get(), event, sizeof(event)), 0);
    const std::string name = event + offsetof(inotify_event, name);
    EXPECT_NE(name.find("VlxSender-"), std::string::npos);
    EXPECT_NE(name.rfind("VlxSender-", 0), 0U);

    Receiver receiver;
    ASSERT_TRUE(receiver.initializeReceiver(getSocketName()));
    stopPromptly(receiver);
    ASSERT_GT(::read(watcher.get(), event, sizeof(event)), 0);
    EXPECT_EQ(std::string(event + offsetof(inotify_event, name)).find("VlxSender-"), name.npos);
    EXPECT_TRUE(listTempDirectory().empty());
}

} // unnamed namespace

} // namespace vlx::kit
