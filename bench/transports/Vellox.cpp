/// Ours: pubsub on the monotonic system clock. Variant "bell": rings in the base directory once the
/// stream stands, as the tools do, so that waiting receivers look again at once. "bell-again": and
/// announces the sequence once more a moment later, for a receiver that was just joining and has
/// missed it.

#include <limits>
#include <vector>

#include <fcntl.h>
#include <log4cplus/configurator.h>
#include <log4cplus/logger.h>
#include <unistd.h>

#include <vlx/VlxPayload.hpp>
#include <vlx/VlxReceiver.hpp>
#include <vlx/VlxSender.hpp>

#include "Transport.hpp"
#include "support/Clock.hpp"

namespace vlx::bench
{
namespace
{

constexpr TimeValue FrameDurationNs = 1'000'000;
constexpr std::uint64_t Never = std::numeric_limits<std::uint64_t>::max();
constexpr std::uint64_t AnnounceAgainNs = 20'000'000;
constexpr std::uint32_t SampleRate = 48000;
constexpr std::uint32_t NumChannels = 2;

void configureLog()
{
    log4cplus::BasicConfigurator(log4cplus::Logger::getDefaultHierarchy(), true).configure();
    log4cplus::Logger::getRoot().setLogLevel(log4cplus::ERROR_LOG_LEVEL);
}

void ringBell(const std::string& directory)
{
    const std::string path = directory + "/.bell-VlxSender-" + std::to_string(getpid());
    const int fd = ::open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0600);
    if (fd >= 0)
        close(fd);
    unlink(path.c_str());
}

class VelloxPublisher : public Publisher
{
public:
    explicit VelloxPublisher(const Link& link) : m_link(link), m_media(link.mediaBytes)
    {
        m_payloader.setNewFormat(SampleRate, NumChannels, audioUtils::PcmFormat::S16LE);
    }

    bool open() override
    {
        if (!m_sender.initializeSender(
                m_link.name, "", "", 0, TimeSyncProtocol::MonotonicSystemClock,
                NanomsgProtocol::PubSub))
            return false;
        m_sender.setCurrentPayloader(m_payloader);
        m_sender.startNewSequence();
        if (m_link.variant.starts_with("bell"))
            ringBell(m_link.directory);
        if (m_link.variant == "bell-again")
            m_announceAgainNs = nowNs() + AnnounceAgainNs;
        return true;
    }

    std::span<std::uint8_t> media() override
    {
        return m_media;
    }

    void send(std::uint64_t timestampNs) override
    {
        if (timestampNs >= m_announceAgainNs)
        {
            m_sender.startNewSequence();
            m_announceAgainNs = Never;
        }
        m_sender.sendMediaData(timestampNs, FrameDurationNs, m_media);
    }

private:
    Link m_link;
    PcmPayloader m_payloader;
    std::vector<std::uint8_t> m_media;
    std::uint64_t m_announceAgainNs = Never;
    Sender m_sender;
};

class VelloxSubscriber : public Subscriber
{
public:
    explicit VelloxSubscriber(const Link& link) : m_name(link.name) {}

    bool start(FrameHandler handler) override
    {
        m_receiver.addDepayloader(m_depayloader);
        m_receiver.setMediaDataCallback(
            [handler = std::move(handler)](TimeValue timestamp, TimeValue, const Buffer& media)
            { handler(timestamp, media); });
        return m_receiver.initializeReceiver(m_name);
    }

private:
    std::string m_name;
    PcmDepayloader m_depayloader;
    Receiver m_receiver;
};

} // namespace

std::unique_ptr<Publisher> makePublisher(const Link& link)
{
    configureLog();
    return std::make_unique<VelloxPublisher>(link);
}

std::unique_ptr<Subscriber> makeSubscriber(const Link& link)
{
    configureLog();
    return std::make_unique<VelloxSubscriber>(link);
}

} // namespace vlx::bench
