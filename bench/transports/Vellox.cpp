/// Ours: pubsub on the monotonic system clock. Variant "bell": rings in the base directory once the
/// stream stands, as the tools do, so that waiting receivers look again at once.

#include <cstdlib>
#include <vector>

#include <fcntl.h>
#include <log4cplus/configurator.h>
#include <log4cplus/logger.h>
#include <unistd.h>

#include <vlx/VlxPayload.hpp>
#include <vlx/VlxReceiver.hpp>
#include <vlx/VlxSender.hpp>

#include "Transport.hpp"

namespace vlx::bench
{
namespace
{

constexpr TimeValue FrameDurationNs = 1'000'000;
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
        if (m_link.variant == "bell")
            ringBell(m_link.directory);
        return true;
    }

    std::span<std::uint8_t> media() override
    {
        return m_media;
    }

    void send(std::uint64_t timestampNs) override
    {
        m_sender.sendMediaData(timestampNs, FrameDurationNs, m_media);
    }

private:
    Link m_link;
    PcmPayloader m_payloader;
    std::vector<std::uint8_t> m_media;
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
