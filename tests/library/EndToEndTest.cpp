// Senders and receivers together.

#include <fcntl.h>

#include <vlx/VlxPayload.hpp>
#include <vlx/VlxReceiver.hpp>
#include <vlx/VlxSender.hpp>

#include "Bell.hpp"
#include "support/OpenSender.hpp"
#include "support/RawPeers.hpp"
#include "support/RecordedReceiver.hpp"
#include "support/TestAccess.hpp"
#include "support/VlxTest.hpp"

namespace vlx
{

using namespace vlx::testing;

namespace
{

class EndToEndTransportTest : public VlxTest, public ::testing::WithParamInterface<NanomsgProtocol>
{
protected:
    /// Creates a sender that one waiting receiver joins. The receiver may miss an announcement
    /// while it joins, so a second sequence follows.
    std::unique_ptr<OpenSender> makeJoinedSender()
    {
        auto sender = std::make_unique<OpenSender>(getSocketName(), m_payloader, GetParam());
        kit::ringBell();
        EXPECT_TRUE(waitFor([&] { return sender->getNumReceivers() == 1; }));
        sender->startNewSequence();
        return sender;
    }

    FormattedPayloader m_payloader{48000, 2};
};

INSTANTIATE_TEST_SUITE_P(
    Transport,
    EndToEndTransportTest,
    ::testing::Values(NanomsgProtocol::PubSub, NanomsgProtocol::Pipeline),
    ::testing::PrintToStringParamName());

} // namespace

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
            sender->sendMediaData(0, 1, Buffer(100));
            return numFrames > 0;
        }));
    const std::vector<int> polled = Access::getPolledFDs(*sender);
    ASSERT_EQ(polled.size(), 3U);
    const std::vector<int> shared = {
        polled[0],
        polled[1],
        ((*sender).*Access::NanomsgWakeupPipe)[1],
        (*receiver).*ReceiverTestAccess::SidechannelSocketFD,
        ((*receiver).*ReceiverTestAccess::LoopWakeupPipe)[1],
        (*receiver).*ReceiverTestAccess::InotifyFD};
    const auto endsInFork = [&](bool wasLocked)
    {
        return runInFork(
            [&]
            {
                sender->disableSend(true);
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
                sender->sendMediaData(i, 1, Buffer(100 * (i % 20)));
                std::this_thread::sleep_for(std::chrono::microseconds(200));
            }
        });
    for (int i = 0; i < NumChildren && !HasFailure(); ++i)
    {
        SCOPED_TRACE(i);
        {
            // One that is held by any thread is never released in the child.
            auto lock = Access::lock(*sender);
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
    sender->disableSend(true);
    producer.join();
    kit::stopPromptly(*waiting);
    kit::stopPromptly(*receiver);
    using State = Receiver::State;
    EXPECT_EQ(states, (std::vector<State>{State::Connecting, State::Running, State::Idle}));
}

} // namespace vlx
