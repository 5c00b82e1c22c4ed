// A receiver's input loop, pass by pass, fed by both channels with packets that are valid, nearly
// valid and neither; a model says what each pass returns and which callbacks it makes. The sockets
// of the main channel live from input to input.

#include <array>
#include <cerrno>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include <vlx/VlxReceiver.hpp>

#include "support/Check.hpp"
#include "support/InputModel.hpp"
#include "support/InputReader.hpp"
#include "support/MainChannel.hpp"
#include "support/Polls.hpp"
#include "support/ReceiverAccess.hpp"
#include "support/Sidechannel.hpp"
#include "support/SilentLog.hpp"

namespace
{

using namespace vlx;
using fuzz::check;
using fuzz::Event;

constexpr std::size_t MaxPassesAtOnce = 64;

// What stands behind them in an input is not played: many short inputs find more than a long one.
constexpr int MaxSteps = 48;
constexpr int MaxConnections = 4;

/// @return the lowest descriptor that is free: higher than before means that one was left open
int findFreeDescriptor()
{
    const int fd = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
    const int number = fd; // all that counts
    ::close(fd);
    return number;
}

class Harness
{
public:
    Harness();
    ~Harness();

    Harness(const Harness&) = delete;
    Harness& operator=(const Harness&) = delete;

    void play(fuzz::InputReader input);

private:
    void connect(fuzz::InputReader& input);
    void disconnect();
    void step(fuzz::InputReader& input);
    Buffer makePacket(std::uint8_t kind, fuzz::InputReader& input);
    std::uint16_t takeSequenceNr(fuzz::InputReader& input);
    void pass();
    void passUntilQuiet();
    void failToPoll();
    void compareStates(bool isStopped);
    void recordFrame(TimeValue timestamp, TimeValue duration, const Buffer& mediaData);

    Receiver m_receiver;
    ReceiverTestAccess m_worker{m_receiver};
    PcmDepayloader m_pcm;
    fuzz::ScrambleDepayloader m_scrambler;
    fuzz::MainChannel m_mainChannel{m_worker};
    fuzz::Sidechannel m_sidechannel;
    fuzz::InputModel m_model{m_mainChannel, m_sidechannel};
    std::vector<Event> m_events;
    bool m_isRunning = false;
    std::uint16_t m_announcedNr = 0; // of the last new-sequence callback
};

Harness::Harness()
{
    check(::pipe2(m_worker.wakeupPipe(), O_CLOEXEC) == 0, "the system gives a pipe");
    m_worker.takeKeepRunning();
    m_receiver.addDepayloader(m_pcm);
    m_receiver.addDepayloader(m_scrambler);
    m_receiver.setNewSequenceCallback(
        [this](Depayloader& depayloader)
        {
            Event event{Event::Kind::NewSequence, depayloader.getFourcc()};
            if (&depayloader == &m_pcm)
                event.sampleRate = m_pcm.getSampleRate();
            m_events.push_back(event);
            m_announcedNr = m_worker.getCurrentSequenceNr();
        });
    m_receiver.setReceiverIsReadyCallback(
        [this](Depayloader& depayloader, Receiver::StreamClockType clockType) {
            m_events.push_back({Event::Kind::Ready, depayloader.getFourcc(), 0, clockType});
        });
    m_receiver.setMediaDataCallback(
        [this](TimeValue timestamp, TimeValue duration, const Buffer& mediaData)
        { recordFrame(timestamp, duration, mediaData); });
}

Harness::~Harness()
{
    for (int& end : m_worker.wakeupPipe())
    {
        ::close(end);
        end = -1;
    }
}

void Harness::recordFrame(TimeValue timestamp, TimeValue duration, const Buffer& mediaData)
{
    check(
        m_announcedNr != 0 && m_announcedNr == m_worker.getDepayloaderList().getCurrentSequenceNr(),
        "a frame belongs to the sequence that was announced last");
    Event event{Event::Kind::Frame};
    event.timestamp = timestamp;
    event.duration = duration;
    event.mediaData = mediaData;
    m_events.push_back(std::move(event));
}

void Harness::play(fuzz::InputReader input)
{
    const int freeBefore = findFreeDescriptor();
    int numConnections = 0;
    for (int i = 0; i < MaxSteps && !input.isEmpty(); ++i)
    {
        if (!m_isRunning && ++numConnections > MaxConnections)
            break;
        if (!m_isRunning)
            connect(input);
        step(input);
    }
    if (m_isRunning)
    {
        m_sidechannel.close();
        passUntilQuiet();
    }
    if (m_isRunning)
        disconnect();
    m_sidechannel.close();
    check(findFreeDescriptor() == freeBefore, "no descriptor is left open");
}

void Harness::connect(fuzz::InputReader& input)
{
    const std::uint8_t clock = input.take();
    const bool hasPort = clock % 4 == 3;
    InitialInfo info{};
    info.timeSyncProtocol = static_cast<TimeSyncProtocol>(clock / 4);
    info.timeSyncPort = hasPort ? 4711 : 0;

    std::optional<Receiver::StreamClockType> readyClock = Receiver::StreamClockType::NoClock;
    if (info.timeSyncProtocol == TimeSyncProtocol::MonotonicSystemClock)
        readyClock = Receiver::StreamClockType::MonotonicSystemClock;
    else if (hasPort)
        readyClock.reset();

    m_worker.enterRunning(m_sidechannel.open(), info);
    m_model.connect(readyClock);
    m_isRunning = true;
}

void Harness::disconnect()
{
    m_worker.leaveRunning();
    m_model.disconnect();
    m_mainChannel.drain();
    m_announcedNr = 0;
    m_isRunning = false;
}

void Harness::step(fuzz::InputReader& input)
{
    const std::uint8_t choice = input.take();
    const std::uint8_t detail = choice / 16;
    switch (choice % 16)
    {
    case 0:
    case 1:
    case 2:
    case 3:
        m_mainChannel.send(makePacket(detail, input));
        pass();
        break;
    case 4:
    case 5:
    case 6:
    {
        const Buffer packet = makePacket(detail, input);
        m_sidechannel.writeMessage(packet, packet.size());
        passUntilQuiet();
        break;
    }
    case 7:
        m_mainChannel.send(makePacket(detail, input));
        break;
    case 8:
    {
        const Buffer packet = makePacket(detail, input);
        m_sidechannel.writeMessage(packet, packet.size());
        break;
    }
    case 9:
        m_sidechannel.writeMessage(input.takeBytes(detail), input.take());
        break;
    case 10:
        m_sidechannel.write(input.takeBytes(detail));
        break;
    case 11:
        m_sidechannel.close();
        break;
    case 12:
        check(::write(m_worker.wakeupPipe()[1], "1", 1) == 1, "the pipe takes a byte");
        m_model.wakeUp();
        break;
    case 13:
        fuzz::failNextPolls(detail, EINTR);
        pass();
        break;
    case 14:
        failToPoll();
        break;
    case 15:
        passUntilQuiet();
        break;
    }
}

/// @param kind  0 to 15; the higher ones make packets with a flaw
Buffer Harness::makePacket(std::uint8_t kind, fuzz::InputReader& input)
{
    Buffer packet;
    const std::uint16_t sequenceNr = takeSequenceNr(input);
    if (kind % 4 == 0)
        produceSequenceInfoPacket(packet, PcmFourcc, input.takeBytes(6), sequenceNr);
    else if (kind % 4 == 1)
        produceSequenceInfoPacket(
            packet, fuzz::ScrambleFourcc, input.takeBytes(input.take() % 4), sequenceNr);
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

std::uint16_t Harness::takeSequenceNr(fuzz::InputReader& input)
{
    constexpr std::array<std::uint16_t, 8> AroundTheWrap = {0,     1,     14,    15,
                                                            65519, 65520, 65530, 65535};
    const std::uint8_t choice = input.take();
    const std::uint16_t current = m_model.getSequenceNr();
    switch (choice % 8)
    {
    case 0:
    case 1:
    case 2:
        return current;
    case 3:
    case 4:
        return static_cast<std::uint16_t>(current + 1);
    case 5:
        return static_cast<std::uint16_t>(current - 1);
    case 6:
        return AroundTheWrap[choice / 8 % AroundTheWrap.size()];
    default:
        return input.take<std::uint16_t>();
    }
}

/// One pass, unless it would wait for ever.
void Harness::pass()
{
    if (!m_isRunning || !m_model.canPass())
        return;
    std::vector<Event> expected;
    m_events.clear();
    const bool shouldGoOn = m_model.pass(expected);
    const bool goesOn = m_worker.listenForInput();
    check(goesOn == shouldGoOn, "a pass keeps the connection or gives it up as it should");
    check(m_events == expected, "a pass makes the callbacks that it should");
    compareStates(m_model.takeStop());
    if (!goesOn)
        disconnect();
}

void Harness::passUntilQuiet()
{
    for (std::size_t i = 0; i < MaxPassesAtOnce && m_isRunning && m_model.canPass(); ++i)
        pass();
}

void Harness::failToPoll()
{
    fuzz::failNextPolls(1, ENOMEM);
    m_events.clear();
    check(!m_worker.listenForInput(), "a poll that fails gives the connection up");
    check(m_events.empty(), "a poll that fails makes no callback");
    disconnect();
}

void Harness::compareStates(bool isStopped)
{
    using ConnectingState = ReceiverTestAccess::ConnectingState;
    check(m_worker.takeKeepRunning() == !isStopped, "only a wakeup stops the worker");
    check(
        m_worker.getCurrentSequenceNr() == m_model.getSequenceNr(),
        "the number is the sequence's that was adopted last");
    check(
        m_worker.isSequenceAnnounced() == m_model.isSequenceAnnounced(),
        "a sequence counts as announced after its callback");
    check(
        (m_worker.getSidechannel() >= 0) == m_model.isSidechannelOpen() &&
            m_worker.getConnectingState() == (m_model.isSidechannelOpen()
                                                  ? ConnectingState::Connected
                                                  : ConnectingState::NotConnected),
        "the sidechannel is closed when the sender has closed it");
    check(m_receiver.getState() == Receiver::State::Running, "the input loop changes no state");
    m_model.getList().compare(m_worker.getDepayloaderList(), m_pcm, m_scrambler);
}

} // unnamed namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz::silenceLog();
    static Harness harness;
    harness.play(fuzz::InputReader(data, size));
    return 0;
}
