// Senders and receivers together.

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <limits>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <log4cplus/logger.h>
#include <malloc.h>

#include <vlx/VlxPayload.hpp>
#include <vlx/VlxReceiver.hpp>
#include <vlx/VlxSender.hpp>

#include "Bell.hpp"
#include "support/AllocationCounter.hpp"
#include "support/OpenSender.hpp"
#include "support/RawPeers.hpp"
#include "support/RecordedReceiver.hpp"
#include "support/TestAccess.hpp"
#include "support/VlxTest.hpp"

namespace fs = std::filesystem;

namespace vlx
{

using namespace vlx::testing;

using audioUtils::PcmFormat;

namespace
{

using Frame = RecordedReceiver::Frame;

struct PcmSender
{
    PcmSender(const std::string& name, NanomsgProtocol protocol) : sender(name, payloader, protocol)
    {
    }

    void send(const Frame& frame)
    {
        sender.sendMediaData(frame.timestamp, frame.duration, frame.data);
    }

    bool waitForReceivers(std::size_t number) const
    {
        return waitFor([this, number] { return sender.getNumReceivers() == number; });
    }

    FormattedPayloader payloader{48000, 2}; // first: it must outlive the sender
    OpenSender sender;
};

/// @return media data that differs in every frame
Buffer makeData(std::size_t size, std::size_t seed)
{
    Buffer data(size);
    for (std::size_t i = 0; i < size; ++i)
        data[i] = static_cast<std::uint8_t>(i * 31 + (i >> 8) + seed * 7);
    return data;
}

class EndToEndTransportTest : public VlxTest, public ::testing::WithParamInterface<NanomsgProtocol>
{
protected:
    /// Creates a sender that one waiting receiver joins. The receiver may miss an announcement
    /// while it joins, so a second sequence follows.
    std::unique_ptr<PcmSender> makeJoinedSender() const
    {
        auto sender = std::make_unique<PcmSender>(getSocketName(), GetParam());
        kit::ringBell();
        EXPECT_TRUE(sender->waitForReceivers(1));
        sender->sender.startNewSequence();
        return sender;
    }
};

INSTANTIATE_TEST_SUITE_P(
    Transport,
    EndToEndTransportTest,
    ::testing::Values(NanomsgProtocol::PubSub, NanomsgProtocol::Pipeline),
    ::testing::PrintToStringParamName());

} // namespace

TEST_P(EndToEndTransportTest, FramesArriveBitForBit)
{
    PcmSender sender(getSocketName(), GetParam());
    RecordedReceiver receiver;
    ASSERT_TRUE(receiver.start(getSocketName()));
    ASSERT_TRUE(sender.waitForReceivers(1));
    ASSERT_TRUE(receiver.waitForEvent("ready"));

    std::vector<std::string> expectedEvents = {
        "connecting", "running", "sequence 48000 x2 S16LE", "ready monotonic system clock"};
    std::vector<Frame> expectedFrames;
    const auto send = [&](const Frame& frame)
    {
        expectedFrames.push_back(frame);
        expectedEvents.push_back("frame " + std::to_string(frame.timestamp));
        sender.send(frame);
        return receiver.waitForEvent("frame", expectedFrames.size());
    };
    for (std::uint32_t i = 0; i < 2; ++i)
    {
        const PcmFormat format = i == 0 ? PcmFormat::S8 : PcmFormat::F64BE;
        const std::uint32_t sampleRate = i == 0 ? 0xFFFFFFFF : 8001;
        const std::uint32_t numChannels = i == 0 ? 255 : 1;
        sender.payloader.setNewFormat(sampleRate, numChannels, format);
        sender.sender.startNewSequence();
        expectedEvents.push_back(
            "sequence " + std::to_string(sampleRate) + " x" + std::to_string(numChannels) + " " +
            std::string(toString(format)));
        ASSERT_TRUE(receiver.waitForEvent("sequence", i + 2));
        for (const std::size_t size : {0U, 1U, 1920U, 60000U})
            ASSERT_TRUE(send({size * 1000 + i, i, makeData(size, i)}));
    }
    ASSERT_TRUE(send({0, 0, {}}));
    constexpr TimeValue Largest = std::numeric_limits<TimeValue>::max();
    ASSERT_TRUE(send({Largest, Largest, makeData(4 << 20, 1)}));

    EXPECT_EQ(receiver.getEvents(), expectedEvents);
    EXPECT_TRUE(receiver.getFrames() == expectedFrames); // too much to be printed
}

TEST_P(EndToEndTransportTest, AFrameCostsOneAllocationAtTheReceiverAndNoneAtTheSender)
{
    constexpr std::size_t NumFrames = 100;
    const log4cplus::Logger logger = log4cplus::Logger::getInstance("Vellox");
    log4cplus::Logger(logger).setLogLevel(log4cplus::OFF_LOG_LEVEL); // messages take memory, too

    PcmSender sender(getSocketName(), GetParam());
    PcmDepayloader depayloader;
    Receiver receiver;
    std::array<std::size_t, NumFrames> allocations{}; // of the worker until each frame
    std::atomic<std::size_t> numReceived = 0;
    receiver.addDepayloader(depayloader);
    receiver.setMediaDataCallback(
        [&](TimeValue, TimeValue, const Buffer&)
        {
            allocations[numReceived] = countAllocationsOfThread();
            ++numReceived; // last: it publishes the entry
        });
    std::atomic<bool> isReady = false;
    receiver.setReceiverIsReadyCallback([&](Depayloader&, Receiver::StreamClockType)
                                        { isReady = true; });
    ASSERT_TRUE(receiver.initializeReceiver(getSocketName()));
    ASSERT_TRUE(sender.waitForReceivers(1));
    ASSERT_TRUE(waitFor([&] { return isReady.load(); }));

    const Frame frame = {1, 1, makeData(1920, 1)};
    const Frame shorter = {2, 1, makeData(480, 2)};
    std::size_t ofSender = 0;
    const std::size_t inUse = ::mallinfo2().uordblks; // none of it counted with a sanitizer
    for (std::size_t i = 0; i < NumFrames; ++i)
    {
        const std::size_t before = countAllocationsOfThread();
        sender.send(i % 2 == 0 ? frame : shorter);
        if (i > 0) // the buffer has grown
            ofSender += countAllocationsOfThread() - before;
        ASSERT_TRUE(waitFor([&] { return numReceived == i + 1; }));
    }
    EXPECT_EQ(ofSender, 0U);
    EXPECT_EQ(allocations.back() - allocations.front(), NumFrames - 1);
    EXPECT_LT(::mallinfo2().uordblks, inUse + NumFrames * 480) << "a leak";
    kit::stopPromptly(receiver);
    log4cplus::Logger(logger).setLogLevel(log4cplus::TRACE_LOG_LEVEL);
}

TEST_P(EndToEndTransportTest, ReconnectingLeavesNothingBehind)
{
    const auto count = [](const char* directory)
    { return std::distance(fs::directory_iterator(directory), fs::directory_iterator()); };
    const auto countAll = [&] { return count("/proc/self/fd") + count("/proc/self/task"); };
    constexpr std::size_t NumRounds = 50;
    RecordedReceiver receiver;
    ASSERT_TRUE(receiver.start(getSocketName()));
    std::ptrdiff_t numAtFirst = 0;
    for (std::size_t round = 1; round <= NumRounds; ++round)
    {
        auto sender = makeJoinedSender();
        ASSERT_TRUE(receiver.waitForEvent("ready", round));
        sender->send({round, 1, makeData(100, round)});
        ASSERT_TRUE(receiver.waitForEvent("frame", round));
        if (round == 2)
            numAtFirst = countAll();
        if (round == NumRounds)
        {
            EXPECT_TRUE(waitFor([&] { return countAll() == numAtFirst; }))
                << countAll() << " after " << numAtFirst;
        }
        sender.reset();
        ASSERT_TRUE(receiver.waitForEvent("connecting", round + 1));
    }
}

TEST_P(EndToEndTransportTest, AForkedCopyEndsAndTheOriginalGoesOn)
{
    using Access = SenderTestAccess;
    constexpr int NumChildren = 20;
    PcmDepayloader depayloader;
    std::atomic<std::size_t> numFrames = 0;
    std::vector<Receiver::State> states;
    auto receiver = std::make_unique<Receiver>();
    receiver->addDepayloader(depayloader);
    receiver->setStateChangedCallback([&](Receiver::State state) { states.push_back(state); });
    receiver->setMediaDataCallback([&](TimeValue, TimeValue, const Buffer&) { ++numFrames; });
    ASSERT_TRUE(receiver->initializeReceiver(getSocketName()));
    auto waiting = std::make_unique<Receiver>(); // nearly always on its condition variable
    ASSERT_TRUE(waiting->initializeReceiver(getSocketName() + "-none"));
    auto sender = makeJoinedSender();
    ASSERT_TRUE(waitFor(
        [&]
        {
            sender->send({0, 1, makeData(100, 0)});
            return numFrames > 0;
        }));
    const std::vector<int> polled = Access::getPolledFDs(sender->sender);
    ASSERT_EQ(polled.size(), 3U);
    const std::vector<int> shared = {
        polled[0],
        polled[1],
        (sender->sender.*Access::NanomsgWakeupPipe)[1],
        (*receiver).*ReceiverTestAccess::SidechannelSocketFD,
        ((*receiver).*ReceiverTestAccess::LoopWakeupPipe)[1],
        (*receiver).*ReceiverTestAccess::InotifyFD};
    const auto endsInFork = [&](bool wasLocked)
    {
        return runInFork(
            [&]
            {
                sender->sender.disableSend(true);
                receiver->shutdownReceiver();
                receiver.reset();
                waiting.reset();
                sender.reset();
                const auto isClosed = [](int fd) { return ::fcntl(fd, F_GETFD) == -1; };
                return std::all_of(shared.begin(), shared.end(), isClosed) &&
                       (wasLocked || isClosed(polled[2]));
            });
    };
    // No thread holds the lock for long.
    EXPECT_TRUE(waitFor([&] { return endsInFork(false); }));

    std::atomic<bool> isDone = false;
    std::thread producer(
        [&]
        {
            for (TimeValue i = 0; !isDone; ++i)
            {
                sender->send({i, 1, makeData(100 * (i % 20), i)});
                std::this_thread::sleep_for(std::chrono::microseconds(200));
            }
        });
    for (int i = 0; i < NumChildren && !HasFailure(); ++i)
    {
        SCOPED_TRACE(i);
        {
            // One that is held by any thread is never released in the child.
            auto lock = Access::lock(sender->sender);
            if (i % 2 == 0)
                lock.unlock();
            EXPECT_TRUE(endsInFork(true));
        }
        const std::size_t numBefore = numFrames;
        EXPECT_TRUE(waitFor([&] { return numFrames > numBefore; }));
    }
    RawConnection newcomer(getSocketName());
    EXPECT_TRUE(newcomer.readMessage());
    newcomer.close();
    isDone = true;
    sender->sender.disableSend(true);
    producer.join();
    kit::stopPromptly(*waiting);
    kit::stopPromptly(*receiver);
    using State = Receiver::State;
    EXPECT_EQ(states, (std::vector<State>{State::Connecting, State::Running, State::Idle}));
}

} // namespace vlx
