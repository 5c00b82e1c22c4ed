// A codec of one's own: captions with a check byte. Plays both ends; succeeds when one has arrived.
//
//   codec [NAME]

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <numeric>
#include <semaphore>

#include <log4cplus/configurator.h>
#include <log4cplus/initializer.h>

#include <vlx/VlxPayload.hpp>
#include <vlx/VlxReceiver.hpp>
#include <vlx/VlxSender.hpp>

constexpr std::uint32_t CaptionFourcc = 0x54504143; // "CAPT", lowest byte first

class CaptionPayloader : public vlx::Payloader
{
public:
    CaptionPayloader() : Payloader(CaptionFourcc)
    {
        m_codecHeader = {'d', 'e'}; // the language; announced with every sequence
    }

    // Both or neither: this one announces exactly what the next one writes.
    std::size_t getSizeForWrappedFrame(const vlx::ByteView& text) const override
    {
        return text.size() + 1;
    }

    void wrapFrame(vlx::Buffer& packet, std::size_t offset, const vlx::ByteView& text) override
    {
        std::copy(text.begin(), text.end(), packet.data() + offset);
        packet[offset + text.size()] = std::accumulate(text.begin(), text.end(), std::uint8_t{0});
    }
};

class CaptionDepayloader : public vlx::Depayloader
{
public:
    CaptionDepayloader() : Depayloader(CaptionFourcc) {}

    // Bytes from outside: check them. false makes the receiver drop the connection.
    bool processCodecHeader(const vlx::ByteView& header) override
    {
        return header.size() == 2;
    }

    vlx::Buffer unwrapFrame(const vlx::ByteView& payload) override
    {
        if (payload.empty())
            return {};
        const auto text = payload.first(payload.size() - 1);
        const auto check = std::accumulate(text.begin(), text.end(), std::uint8_t{0});
        return check == payload.back() ? vlx::Buffer(text.begin(), text.end()) : vlx::Buffer();
    }
};

int main(int argc, char** argv)
{
    log4cplus::Initializer logging;
    log4cplus::BasicConfigurator(log4cplus::Logger::getDefaultHierarchy(), true).configure();
    log4cplus::Logger::getRoot().setLogLevel(log4cplus::WARN_LOG_LEVEL);

    const vlx::Buffer caption = {'H', 'a', 'l', 'l', 'o'};
    std::counting_semaphore<> arrived(0);
    CaptionDepayloader depayloader;
    CaptionPayloader payloader;
    vlx::Sender sender;
    vlx::Receiver receiver;
    receiver.addDepayloader(depayloader);
    receiver.setMediaDataCallback(
        [&](vlx::TimeValue, vlx::TimeValue, const vlx::Buffer& text)
        {
            if (text == caption)
                arrived.release();
        });

    const char* name = argc > 1 ? argv[1] : "captions";
    const auto clock = vlx::TimeSyncProtocol::MonotonicSystemClock;
    if (!sender.initializeSender(name, "", "", 0, clock, vlx::NanomsgProtocol::PubSub))
        return 1;
    sender.setCurrentPayloader(payloader);
    sender.startNewSequence();
    if (!receiver.initializeReceiver(name))
        return 1;

    bool hasArrived = false;
    // The receiver needs a moment to join; until then frames go nowhere.
    for (int i = 0; i < 100 && !hasArrived; ++i)
    {
        sender.sendMediaData(0, 0, caption);
        hasArrived = arrived.try_acquire_for(std::chrono::milliseconds(50));
    }
    return hasArrived ? 0 : 1;
}
