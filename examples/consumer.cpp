// Smallest consumer: joins the sender of a name and counts its frames, for ever or up to a number.
//
//   consumer NAME [FRAMES]

#include <cstddef>
#include <cstdint>
#include <iostream>
#include <semaphore>
#include <string>

#include <log4cplus/configurator.h>
#include <log4cplus/initializer.h>

#include <vlx/VlxPayload.hpp>
#include <vlx/VlxReceiver.hpp>

int main(int argc, char** argv)
{
    if (argc < 2)
        return 2;
    const std::uint64_t wanted = argc > 2 ? std::stoull(argv[2]) : UINT64_MAX;

    log4cplus::Initializer logging;
    log4cplus::BasicConfigurator(log4cplus::Logger::getDefaultHierarchy(), true).configure();
    log4cplus::Logger::getRoot().setLogLevel(log4cplus::WARN_LOG_LEVEL);

    std::uint64_t frames = 0; // worker thread only, until the receiver is shut down
    std::size_t bytes = 0;    // likewise
    std::binary_semaphore done(0);

    vlx::PcmDepayloader depayloader; // outlives the receiver
    vlx::Receiver receiver;
    receiver.addDepayloader(depayloader);

    // Callbacks run on the receiver's worker thread; everything is set before it starts.
    receiver.setNewSequenceCallback(
        [&](vlx::Depayloader&)
        {
            std::cout << depayloader.getSampleRate() << " Hz, " << depayloader.getNumChannels()
                      << " channel(s), " << audioUtils::toString(depayloader.getSampleFormat())
                      << std::endl;
        });
    receiver.setMediaDataCallback(
        [&](vlx::TimeValue, vlx::TimeValue, const vlx::Buffer& mediaData)
        {
            // Copy what is needed later: the buffer is valid during the call only.
            bytes += mediaData.size();
            if (++frames == wanted)
                done.release();
        });

    if (!receiver.initializeReceiver(argv[1]))
        return 1;

    // Any other end is Ctrl-C: a receiver leaves nothing behind in the file system.
    done.acquire();
    receiver.shutdownReceiver(); // takes up to 5 s, and never comes from inside a callback
    std::cout << frames << " frames, " << bytes << " bytes" << std::endl;
    return 0;
}
