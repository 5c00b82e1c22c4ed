#include <deque>
#include <sstream>

#include <Bell.hpp>
#include <FrameRing.hpp>
#include <SenderQuestion.hpp>
#include <UnixSockets.hpp>
#include <fcntl.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <vlxkit/Discovery.hpp>
#include <vlxkit/PromptStop.hpp>

#include "support/ChildProcess.hpp"
#include "support/HostilePeer.hpp"
#include "support/OpenProducer.hpp"
#include "support/RawSender.hpp"
#include "support/RecordedReceiver.hpp"
#include "support/VlxTest.hpp"

namespace vlx::kit
{

namespace
{

using namespace vlx::testing;
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

    /// Looks until a change of one of this test's senders is reported.
    ///
    /// @return such as "came NAME"; empty if none is
    std::string getNextChange(SenderWatch& watch)
    {
        const auto look = [&]
        {
            for (SenderChange& change : watch.look())
            {
                if (change.sender.name.starts_with(getSocketName()))
                    m_changes.push_back(std::move(change));
            }
            return !m_changes.empty();
        };
        if (!waitFor(look))
            return {};
        m_change = m_changes.front();
        m_changes.pop_front();
        const char* const kinds[] = {"came ", "changed ", "gone "};
        return kinds[static_cast<int>(m_change.kind)] + m_change.sender.name;
    }

    SenderChange m_change; // the latest one

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

private:
    std::deque<SenderChange> m_changes;
};

class DiscoveryAgainstTricks : public DiscoveryTest, public ::testing::WithParamInterface<Trick>
{
};

INSTANTIATE_TEST_SUITE_P(
    Tricks,
    DiscoveryAgainstTricks,
    AllTricks,
    ::testing::PrintToStringParamName());

void makeOld(const std::string& path, std::time_t seconds = 90)
{
    timespec times[2] = {};
    ::clock_gettime(CLOCK_REALTIME, &times[0]);
    times[0].tv_sec -= seconds;
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
    RecordedReceiver receiver(name);
    OpenProducer own({.name = name});
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
        const std::vector<SenderEntry> senders = listSenders().senders;
        const auto found = std::find_if(
            senders.begin(), senders.end(),
            [&name](const SenderEntry& entry) { return entry.name == name; });
        EXPECT_TRUE(found != senders.end() && found->user == OtherUser) << "the effective one";
        ASSERT_EQ(::seteuid(0), 0);
    }
    own.close();
    receiver.stop();
    fs::remove_all(killed.getDirectory());
}

TEST_F(DiscoveryTest, WatchReportsWhatComesChangesAndGoes)
{
    if (!runsAlone()) // a watch asks every sender that it sees, other tests' too
        return;
    const std::string& name = getSocketName();
    SenderWatch watch(10ms);
    Producer own({.name = name});
    const StreamFormat format{audioUtils::PcmFormat::U8, 8000, 1};
    ASSERT_TRUE(own.open(format));
    EXPECT_EQ(getNextChange(watch), "came " + name);
    EXPECT_EQ(m_change.probe.format, format);
    EXPECT_EQ(m_change.probe.socketFile, own.getSocketFile());
    EXPECT_EQ(m_change.sender.process, ::getpid());
    ASSERT_TRUE(own.setFormat(StreamFormat()));
    EXPECT_EQ(getNextChange(watch), "changed " + name);
    EXPECT_EQ(m_change.probe.format, StreamFormat());

    SenderWatch calm(1h); // asks nothing more, so that every change of the number is a receiver's
    EXPECT_EQ(getNextChange(calm), "came " + name);
    RecordedReceiver receiver(name);
    EXPECT_EQ(getNextChange(calm), "changed " + name);
    EXPECT_EQ(m_change.sender.receivers, 1U);
    receiver.stop();
    EXPECT_EQ(getNextChange(calm), "changed " + name);
    EXPECT_EQ(m_change.sender.receivers, 0U);

    // Another sender of the same name and process.
    own.close();
    ASSERT_TRUE(own.open(format));
    EXPECT_EQ(getNextChange(calm), "gone " + name);
    EXPECT_EQ(getNextChange(calm), "came " + name);
    own.close();
    EXPECT_EQ(getNextChange(calm), "gone " + name);
    {
        SenderProcess killed(name + "-b", NanomsgProtocol::Pipeline);
        EXPECT_EQ(getNextChange(calm), "came " + name + "-b");
        EXPECT_EQ(m_change.probe.initialInfo->nanomsgProtocol, NanomsgProtocol::Pipeline);
        killed.kill();
        fs::remove_all(killed.getDirectory());
    }
    EXPECT_EQ(getNextChange(calm), "gone " + name + "-b");
    SenderWatch moved = std::move(calm);
    EXPECT_THAT(moved.look(), IsEmpty());
}

TEST_F(DiscoveryTest, WatchReportsOtherSharedMemory)
{
    if (!runsAlone()) // as above
        return;
    RawSidechannelServer server(getSocketName());
    ASSERT_EQ(::fcntl(server.getFD(), F_SETFL, O_NONBLOCK), 0); // as a sender's is
    const std::string rings[] = {"vlx-Ab3xYz", "vlx-Ab3xYz.2"};
    std::thread peer(
        [&]
        {
            ::pthread_setname_np(::pthread_self(), "vlx-listener"); // as a sender's
            for (const std::string& ring : rings)
            {
                Buffer sequence;
                produceSequenceInfoPacket(
                    sequence, RingFourcc, produceRingHeader({{ring, 4, 8192}, 1}), 7);
                RawConnection connection = server.accept();
                connection.send(
                    makeSidechannelMessage(makeInitialInfo("", NanomsgProtocol::PubSub)));
                connection.send(makeSidechannelMessage(sequence));
            }
            server.accept(); // a sender's thread lives on
        });
    SenderWatch watch(std::chrono::milliseconds(10));
    for (const std::string& ring : rings)
    {
        EXPECT_EQ(
            getNextChange(watch), (ring == rings[0] ? "came " : "changed ") + getSocketName());
        EXPECT_EQ(m_change.probe.ring.value_or(RingLayout()).name, ring);
    }
    const RawConnection last(getSocketName());
    peer.join();
}

TEST_F(DiscoveryTest, WatchAsksAStoppedSenderOverOneConnection)
{
    if (!runsAlone()) // as above
        return;
    const SenderProcess process(getSocketName(), NanomsgProtocol::PubSub);
    process.signal(SIGSTOP);
    siginfo_t stopped = {}; // its threads may run on for a moment
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(process.getPid()), &stopped, WSTOPPED), 0);
    const auto before = listDescriptors().size();
    SenderWatch watch(std::chrono::milliseconds(10));
    EXPECT_EQ(getNextChange(watch), "came " + getSocketName());
    EXPECT_FALSE(m_change.probe.initialInfo);
    EXPECT_TRUE(m_change.probe.reached);
    for (int i = 0; i < 50; ++i)
        EXPECT_THAT(watch.look(), IsEmpty());
    EXPECT_EQ(listDescriptors().size(), before + 1);
    process.signal(SIGCONT);
    EXPECT_EQ(getNextChange(watch), "changed " + getSocketName());
    EXPECT_TRUE(m_change.probe.sequenceNr);

    // One that has answered before; the stop may also come in the middle of an answer.
    process.signal(SIGSTOP);
    do
    {
        ASSERT_EQ(getNextChange(watch), "changed " + getSocketName());
    } while (m_change.probe.initialInfo);
    EXPECT_EQ(listDescriptors().size(), before + 1);
    process.signal(SIGCONT);
}

TEST_F(DiscoveryTest, ForgedNamesHideAndRenameNothing)
{
    const std::string name = getSocketName() + "\n\t";
    const SenderProcess pubSub(name + "b", NanomsgProtocol::PubSub);
    const SenderProcess pipeline(name + "c", NanomsgProtocol::Pipeline);
    // Lines that claim the sockets of both in the kernel's text.
    std::vector<RawSidechannelServer> forgers;
    for (const SenderProcess* const process : {&pubSub, &pipeline})
    {
        const std::string directory = "/proc/" + std::to_string(process->getPid()) + "/fd";
        for (const fs::directory_entry& entry : fs::directory_iterator(directory))
        {
            const std::string target = fs::read_symlink(entry.path()).string();
            if (!target.starts_with("socket:["))
                continue;
            forgers.emplace_back(
                getSocketName() + "f\n0: 0 0 10000 1 1 " + target.substr(8, target.size() - 9) +
                " @" + getSocketName() + "evil");
            ASSERT_TRUE(forgers.back().isListening());
        }
    }
    ASSERT_GE(forgers.size(), 3U);
    makeOld(pipeline.getDirectory());
    const std::string command = "SenderProcess";
    EXPECT_THAT(
        list(), ElementsAre(
                    toLine(name + "b", pubSub.getPid(), command, 0, pubSub.getSocketFile()),
                    toLine(name + "c", pipeline.getPid(), command, 0, "")));
    EXPECT_EQ(listSenders().notice, "");
    EXPECT_TRUE(probeSender(name + "c", DefaultDeadline).sequenceNr);
    EXPECT_THAT(removeDeadEntries().entries, IsEmpty());
    EXPECT_TRUE(fs::exists(pipeline.getDirectory()));
}

TEST_F(DiscoveryTest, TextOfTheKernelIsReadWithDoubt)
{
    const std::string heading = "Num       RefCount Protocol Flags    Type St Inode Path\n";
    const std::string first = "ffff8881: 00000002 00000000 00010000 0001 01    11 @a b\n";
    const std::string second = "ffff8882: 00000003 00000000 00000000 0001 03    12 @a b\n";
    const std::tuple<const char*, std::string, std::vector<std::uint64_t>, bool> rows[] = {
        {"none", "", {}, false},
        {"two", first + second, {11, 12}, false},
        {"without name", "0: 2 0 0 0001 03 13\n" + second, {12, 13}, false},
        {"not accepted", "0: 2 0 0 0001 02 0 @a\n" + first, {11}, false},
        {"newline at the end", first + "\n" + second, {12}, true},
        {"newline within", second + first + "c d\n", {12}, true},
        {"twice", first + second + "0: 0 0 10000 1 1 12 @evil\n", {11}, true},
        {"twice, of another type", first + "0: 0 0 0 2 1 11 @evil\n" + second, {12}, true},
        {"three times", first + first + first, {}, true},
        {"no blank", first + "0: 0 0 10000 1 1 13x\n", {}, true}};
    for (const auto& [name, lines, expected, isIncomplete] : rows)
    {
        std::istringstream text(heading + lines);
        const UnixSockets sockets = parseUnixSockets(text);
        std::vector<std::uint64_t> inodes;
        for (const auto& [inode, socket] : sockets.byInode)
            inodes.push_back(inode);
        EXPECT_THAT(inodes, ::testing::UnorderedElementsAreArray(expected)) << name;
        EXPECT_EQ(sockets.isIncomplete, isIncomplete) << name;
    }

    std::istringstream text(heading + first + second);
    const UnixSockets sockets = parseUnixSockets(text);
    const std::string name("\0a b", 4);
    EXPECT_TRUE(sockets.byInode.at(11).isListening && !sockets.byInode.at(11).isConnected);
    EXPECT_TRUE(sockets.byInode.at(12).isConnected && !sockets.byInode.at(12).isListening);
    EXPECT_EQ(sockets.byInode.at(11).name, name);
    EXPECT_EQ(countConnections(sockets, name), 1U);
    EXPECT_EQ(countConnections(sockets, "@a b"), 0U);
}

TEST_F(DiscoveryTest, MuteSendersAreAskedAtOnce)
{
    std::vector<RawSidechannelServer> mute;
    std::vector<std::string> names;
    for (int i = 0; i < 250; ++i)
    {
        names.push_back(getSocketName() + "-" + std::to_string(i));
        mute.emplace_back(names.back());
    }
    OpenProducer producer({.name = getSocketName()});
    names.push_back(getSocketName());
    names.push_back("vlx-nobody");

    const auto timeout = 500ms;
    const auto start = std::chrono::steady_clock::now();
    const std::vector<SenderProbe> probes = probeSenders(names, timeout);
    EXPECT_LT(std::chrono::steady_clock::now() - start, timeout * 10) << "one after the other: 250";
    ASSERT_EQ(probes.size(), names.size());
    for (std::size_t i = 0; i < mute.size(); ++i)
        EXPECT_TRUE(probes[i].reached && !probes[i].initialInfo && !probes[i].busy) << i;
    EXPECT_TRUE(probes[mute.size()].format);
    EXPECT_FALSE(probes.back().reached);

    const Descriptor stop(::eventfd(1, EFD_CLOEXEC));
    const std::vector<SenderProbe> stopped = probeSenders(names, 1h, stop.get());
    EXPECT_FALSE(stopped[mute.size()].reached) << "it comes after 200 others";
    EXPECT_THAT(probeSenders({}, 1h, -1), IsEmpty());
}

TEST_F(DiscoveryTest, RemovesWakeupFilesOfKilledPrograms)
{
    const std::tuple<const char*, bool, bool, bool> rows[] = {
        {".vlx-stop-a1B2c3", true, false, true},
        {".bell-VlxSender-17-a1B2c3", true, false, true},
        {".vlx-stop-young1", false, false, false},
        {".bell-VlxSender-17-young1", false, false, false},
        {".vlx-stop-filled", true, true, false},
        {"vlx-stop-a1B2c3", true, false, false},
        {".bellows", true, false, false}};
    for (const auto& [name, isOld, hasContents, isRemoved] : rows)
    {
        std::ofstream(getTempDirectory() + "/" + name) << (hasContents ? "x" : "");
        if (isOld)
            makeOld(getTempDirectory() + "/" + name);
    }
    fs::create_directory(getTempDirectory() + "/.vlx-stop-folder");
    makeOld(getTempDirectory() + "/.vlx-stop-folder");
    EXPECT_EQ(removeDeadEntries().entries.size(), 2U);
    EXPECT_TRUE(fs::exists(getTempDirectory() + "/.vlx-stop-folder"));
    for (const auto& [name, isOld, hasContents, isRemoved] : rows)
        EXPECT_NE(fs::exists(getTempDirectory() + "/" + name), isRemoved) << name;
    for (const std::string& name : listTempDirectory())
        fs::remove(getTempDirectory() + "/" + name);
}

TEST_F(DiscoveryTest, RemovesWhatDeadSendersLeftAndNothingElse)
{
    if (!runsAlone())
        return;
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
    makeOld(young.getDirectory(), 30);
    makeOld(elsewhere);
    makeOld(base + "/VlxSender-longer1");

    // It could be any directory's sender.
    pipeline.signal(SIGSTOP);
    siginfo_t stopped = {}; // its threads may run on for a moment
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(pipeline.getPid()), &stopped, WSTOPPED), 0);
    EXPECT_THAT(removeDeadEntries().entries, IsEmpty());
    pipeline.signal(SIGCONT);

    std::vector<std::string> removed;
    std::vector<std::string> kept;
    std::vector<DeadEntry> found;
    ASSERT_TRUE(waitFor([&] { return !(found = removeDeadEntries(base).entries).empty(); }));
    for (const DeadEntry& directory : found)
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
    const std::tuple<const char*, Buffer, bool, bool, bool> rows[] = {
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
    for (const auto& [name, bytes, hasInfo, hasFourcc, hasFormat] : rows)
    {
        const SenderProbe answer =
            probe([&bytes = bytes](RawConnection& connection) { connection.send(bytes, 3); });
        EXPECT_TRUE(answer.reached) << name;
        EXPECT_FALSE(answer.busy || answer.mayJoin) << name;
        EXPECT_EQ(answer.initialInfo.has_value(), hasInfo) << name;
        EXPECT_EQ(answer.fourcc.has_value(), hasFourcc) << name;
        EXPECT_EQ(answer.format.has_value(), hasFormat) << name;
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
    EXPECT_TRUE(isNameTaken(getSocketName()) && isSenderPresent(getSocketName()));
    static constexpr auto NoWait = std::chrono::milliseconds(0);
    EXPECT_TRUE(waitFor([this] { return probeSender(getSocketName(), NoWait).busy; }));
    const SenderProbe busy = probeSender(getSocketName(), DefaultDeadline);
    EXPECT_TRUE(busy.busy && busy.reached && !busy.initialInfo && !busy.closedEarly);
    server.close();
    EXPECT_FALSE(isNameTaken(getSocketName()) || isSenderPresent(getSocketName()));
}

TEST_P(DiscoveryAgainstTricks, HoldsNoQuestion)
{
    HostilePeer peer(GetParam(), getTempDirectory());
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
    ASSERT_TRUE(log().waitFor(DebugLog(HasSubstr("fsMonitorThreadLoop"))));
    RawSidechannelServer server(getSocketName()); // which makes no entry
    ASSERT_TRUE(ringBell());
    EXPECT_TRUE(server.accept().isOpen()) << "one ring is enough";
    server.close();
    ASSERT_GT(::read(watcher.get(), event, sizeof(event)), 0);
    stopPromptly(receiver);
    ASSERT_GT(::read(watcher.get(), event, sizeof(event)), 0);
    EXPECT_EQ(std::string(event + offsetof(inotify_event, name)).find("VlxSender-"), name.npos);
    EXPECT_TRUE(listTempDirectory().empty());
}

} // unnamed namespace

} // namespace vlx::kit
