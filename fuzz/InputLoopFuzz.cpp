// Runs a receiver's input loop pass by pass, with valid, nearly valid and invalid packets on both
// channels. No frame comes before its announcement; sequence numbers never decrease within a
// connection; the next connection works, whatever the previous one received. The sockets of the
// main channel are reused for all inputs.

#include <array>
#include <cerrno>

#include <fcntl.h>
#include <nanomsg/nn.h>
#include <nanomsg/pipeline.h>
#include <poll.h>
#include <unistd.h>

#include <vlx/VlxReceiver.hpp>

#include "support/Fuzz.hpp"
#include "support/TestAccess.hpp"

namespace
{

using namespace vlx;
using fuzz::check;
using Access = ReceiverTestAccess;

constexpr const char* MainChannelUri = "inproc://main-channel";
constexpr int MaxPassesAtOnce = 64;

// The rest of an input is ignored: many short inputs find more than a long one.
constexpr int MaxSteps = 48;

/// @return the lowest free descriptor; a higher one than before reveals a leak
int findFreeDescriptor()
{
    const int fd = ::dup(STDERR_FILENO);
    ::close(fd);
    return fd;
}

class Harness
{
public:
    Harness() : m_pushFD(::nn_socket(AF_SP, NN_PUSH))
    {
        check(::pipe2(wakeupPipe(), O_CLOEXEC) == 0, "a pipe can be created");
        m_receiver.*Access::KeepRunning = true;
        m_receiver.addDepayloader(m_pcm);
        m_receiver.addDepayloader(m_odd);
        m_receiver.setNewSequenceCallback(
            [this](Depayloader&)
            {
                ++m_numEvents;
                check(getCurrentNr() > m_seen.announcedNr, "each sequence is announced once");
                m_seen.announcedNr = getCurrentNr();
            });
        m_receiver.setReceiverIsReadyCallback(
            [this](Depayloader&, Receiver::StreamClockType)
            {
                check(m_seen.announcedNr != 0, "readiness comes after the announcement");
                check(!std::exchange(m_seen.isReady, true), "readiness is told once");
            });
        m_receiver.setMediaDataCallback(
            [this](TimeValue, TimeValue, const Buffer&)
            {
                ++m_numEvents;
                check(m_seen.announcedNr != 0, "no frame comes before its announcement");
            });

        // Pipeline, whose sender knows which packets were received.
        InitialInfo info{};
        info.nanomsgProtocol = NanomsgProtocol::Pipeline;
        info.nanomsgURI = MainChannelUri;
        m_receiver.*Access::InitialInfoPacket = info;
        check(
            (m_receiver.*Access::ConnectNanomsgMainChannel)() ==
                    Access::ConnectionRetval::Success &&
                ::nn_connect(m_pushFD, MainChannelUri) >= 0,
            "both ends of the main channel open");
    }

    ~Harness()
    {
        ::nn_close(m_pushFD);
        (m_receiver.*Access::DisconnectNanomsgMainChannel)();
        for (int i = 0; i < 2; ++i)
            ::close(std::exchange(wakeupPipe()[i], -1));
    }

    void play(fuzz::InputReader input)
    {
        const int freeBefore = findFreeDescriptor();
        for (int i = 0; i < MaxSteps && !input.isEmpty(); ++i)
        {
            if (!m_isRunning)
                connect(input.take());
            step(input);
        }
        checkStillWorks();
        disconnect();
        m_peer.close();
        check(findFreeDescriptor() == freeBefore, "no descriptor is left open");
    }

private:
    int (&wakeupPipe())[2]
    {
        return m_receiver.*Access::LoopWakeupPipe;
    }

    std::uint16_t getCurrentNr()
    {
        return m_receiver.*Access::CurrentSequenceNr;
    }

    void connect(std::uint8_t clock)
    {
        InitialInfo info{};
        info.timeSyncProtocol = static_cast<TimeSyncProtocol>(clock / 4);
        info.timeSyncPort = clock % 4 == 3 ? 4711 : 0;
        m_receiver.*Access::InitialInfoPacket = info;
        m_receiver.*Access::SidechannelSocketFD = m_peer.open();
        m_receiver.*Access::ConnectingStateNow = Access::ConnectingState::Connected;
        m_receiver.*Access::State = Receiver::State::Running;
        m_seen = {};
        m_isRunning = true;
    }

    /// Does what a worker does when a connection is lost, but keeps the main channel.
    void disconnect()
    {
        (m_receiver.*Access::DisconnectSidechannel)();
        (m_receiver.*Access::ResetConnectionStates)();
        m_receiver.*Access::State = Receiver::State::Idle;
        void* message = nullptr;
        while (::nn_recv(
                   m_receiver.*Access::NanomsgMainFD, static_cast<void*>(&message), NN_MSG,
                   NN_DONTWAIT) >= 0)
            ::nn_freemsg(message);
        m_isRunning = false;
    }

    void step(fuzz::InputReader& input)
    {
        const std::uint8_t choice = input.take();
        const int way = choice % 16;
        const std::uint8_t detail = choice / 16;
        if (way < 4 || way == 7)
            send(makePacket(detail, input));
        else if (way < 9)
            sendAside(makePacket(detail, input));
        else if (way < 11)
        {
            const Buffer rubbish = fuzz::frame(input.takeBytes(detail));
            m_peer.write(rubbish, input.take() % rubbish.size());
        }
        if (way >= 9 && way < 12)
            m_peer.close();
        else if (way < 4)
            pass();
        else if (way != 7 && way != 8)
            passUntilQuiet();
    }

    void sendAside(const Buffer& packet)
    {
        const Buffer framed = fuzz::frame(packet);
        if (m_peer.write(framed, framed.size()) != framed.size())
            m_peer.close();
    }

    /// @param kind  0 to 15; the higher ones make packets with a flaw
    Buffer makePacket(std::uint8_t kind, fuzz::InputReader& input)
    {
        Buffer packet;
        const std::uint16_t sequenceNr = takeSequenceNr(input);
        if (kind % 4 == 0)
            produceSequenceInfoPacket(packet, PcmFourcc, input.takeBytes(6), sequenceNr);
        else if (kind % 4 == 1)
            produceSequenceInfoPacket(
                packet, fuzz::OddFourcc, input.takeBytes(input.take() % 4), sequenceNr);
        else
        {
            const auto timestamp = input.take<std::uint16_t>();
            const auto duration = input.take<std::uint16_t>();
            PcmPayloader().produceFramePacket(
                packet, sequenceNr, timestamp, duration, input.takeBlock());
        }
        if (kind >= 14)
            packet.resize(std::min<std::size_t>(packet.size(), input.take()));
        else if (kind >= 12)
            packet[input.take() % packet.size()] = input.take();
        else if (kind >= 10)
            packet[0] = input.take();
        return packet;
    }

    std::uint16_t takeSequenceNr(fuzz::InputReader& input)
    {
        constexpr std::array<int, 8> FromCurrent = {0, 0, 0, 1, 1, -1};
        constexpr std::array<std::uint16_t, 8> AroundTheWrap = {0,     1,     14,    15,
                                                                65519, 65520, 65530, 65535};
        const std::uint8_t choice = input.take();
        if (choice % 8 == 6)
            return AroundTheWrap[choice / 8 % AroundTheWrap.size()];
        if (choice % 8 == 7)
            return input.take<std::uint16_t>();
        return static_cast<std::uint16_t>(getCurrentNr() + FromCurrent[choice % 8]);
    }

    /// Sends on the main channel, unless it is full.
    void send(const Buffer& packet)
    {
        check(
            ::nn_send(m_pushFD, packet.data(), packet.size(), NN_DONTWAIT) >= 0 || errno == EAGAIN,
            "a packet is sent or there is no room for it");
    }

    bool hasInput()
    {
        std::array<pollfd, 3> entries = {
            pollfd{wakeupPipe()[0], POLLIN, 0},
            pollfd{m_receiver.*Access::NanomsgWatchFD, POLLIN, 0},
            pollfd{m_receiver.*Access::SidechannelSocketFD, POLLIN, 0}};
        return ::poll(entries.data(), entries.size(), 0) > 0;
    }

    /// Runs one pass, unless it would wait.
    ///
    /// @return whether a pass ran and the connection continues
    bool pass()
    {
        if (m_isRunning && m_receiver.*Access::SidechannelSocketFD < 0 && !hasInput())
            disconnect();
        if (!m_isRunning || !hasInput())
            return false;
        m_numEvents = 0;
        const bool goesOn = (m_receiver.*Access::ListenForInput)();
        check(m_receiver.*Access::KeepRunning, "no input stops the worker");
        check(getCurrentNr() >= m_seen.highestNr, "numbers never fall within a connection");
        m_seen.highestNr = getCurrentNr();
        if (!goesOn)
            disconnect();
        return goesOn;
    }

    void passUntilQuiet()
    {
        for (int left = MaxPassesAtOnce; left > 0 && pass();)
            --left;
    }

    /// Checks that the next sequence and its frames are delivered, on this connection or another
    /// one.
    void checkStillWorks()
    {
        passUntilQuiet();
        if (m_isRunning && (hasInput() || getCurrentNr() == 0xFFFF))
            disconnect();
        const bool isFresh = !m_isRunning;
        if (isFresh)
            connect(0);

        const auto number = static_cast<std::uint16_t>(getCurrentNr() + 1);
        PcmPayloader payloader;
        payloader.setNewFormat(48'000, 2, audioUtils::PcmFormat::S16LE);
        Buffer packet;
        produceSequenceInfoPacket(packet, PcmFourcc, payloader.getCodecHeader(), number);
        send(packet);
        check(pass() && m_seen.announcedNr == number, "the next sequence is announced");
        check(m_seen.isReady || !isFresh, "readiness is told on each connection");
        payloader.produceFramePacket(packet, number, 1, 2, Buffer(8, 3));
        send(packet);
        check(pass() && m_numEvents == 1, "a frame of the next sequence is delivered");
    }

    PcmDepayloader m_pcm;
    fuzz::OddDepayloader m_odd;
    Receiver m_receiver;
    fuzz::FramedPeer m_peer; // the sidechannel's other end
    int m_pushFD;            // the main channel's
    bool m_isRunning = false;
    int m_numEvents = 0; // sequences and frames of this pass

    /// Of the present connection.
    struct Seen
    {
        std::uint16_t highestNr = 0;
        std::uint16_t announcedNr = 0;
        bool isReady = false;
    };

    Seen m_seen;
};

} // unnamed namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz::silenceLog();
    static Harness harness;
    harness.play({data, size});
    return 0;
}
