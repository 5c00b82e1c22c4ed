// A consumer that shows what happens to its connection while senders come and go, until a number
// of connections has ended. Start and stop a producer of the same name meanwhile.
//
//   reconnecting NAME CONNECTIONS

#include <cstdint>
#include <iostream>
#include <semaphore>
#include <string>

#include <log4cplus/configurator.h>
#include <log4cplus/initializer.h>

#include <miscUtils/MiscUtils.hpp>
#include <vlx/VlxPayload.hpp>
#include <vlx/VlxReceiver.hpp>

namespace
{

// Everything below runs on the receiver's worker thread, except the first Connecting, which comes
// from inside initializeReceiver() before that thread exists.
class ConnectionLog
{
public:
    explicit ConnectionLog(std::uint64_t wanted) : m_wanted(wanted) {}

    void onStateChanged(vlx::Receiver::State state)
    {
        std::cout << getElapsedMs() << " ms: " << toString(state) << std::endl;
        if (state == vlx::Receiver::State::Running)
        {
            m_frames = 0;
            m_isJoined = true;
        }
        else if (m_isJoined)
        {
            m_isJoined = false;
            std::cout << getElapsedMs() << " ms: connection lost after " << m_frames << " frames\n";
            if (++m_ended == m_wanted)
                m_done.release();
        }
    }

    void onReady(vlx::Receiver::StreamClockType clock)
    {
        std::cout << getElapsedMs() << " ms: ready, timestamps on: " << toString(clock) << '\n';
    }

    void onFrame()
    {
        if (++m_frames == 1)
            std::cout << getElapsedMs() << " ms: first frame" << std::endl;
    }

    void waitUntilDone()
    {
        m_done.acquire();
    }

private:
    std::uint64_t getElapsedMs() const
    {
        return (miscUtils::getMonotonicSysclockTime() - m_start) / 1'000'000;
    }

    const std::uint64_t m_wanted;
    const vlx::TimeValue m_start = miscUtils::getMonotonicSysclockTime();
    std::uint64_t m_frames = 0; // of this connection
    std::uint64_t m_ended = 0;
    bool m_isJoined = false;
    std::binary_semaphore m_done{0};
};

} // namespace

int main(int argc, char** argv)
{
    if (argc < 3)
        return 2;

    log4cplus::Initializer logging;
    log4cplus::BasicConfigurator(log4cplus::Logger::getDefaultHierarchy(), true).configure();
    log4cplus::Logger::getRoot().setLogLevel(log4cplus::WARN_LOG_LEVEL);

    ConnectionLog log(std::stoull(argv[2]));
    vlx::PcmDepayloader depayloader;
    vlx::Receiver receiver; // last: it stops before what its callbacks use
    receiver.addDepayloader(depayloader);
    receiver.setStateChangedCallback([&](auto state) { log.onStateChanged(state); });
    receiver.setReceiverIsReadyCallback([&](auto&, auto clock) { log.onReady(clock); });
    receiver.setMediaDataCallback([&](auto, auto, auto&) { log.onFrame(); });
    if (!receiver.initializeReceiver(argv[1]))
        return 1;

    log.waitUntilDone();
    receiver.shutdownReceiver();
    return 0;
}
