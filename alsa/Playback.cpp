#include <algorithm>
#include <cerrno>
#include <utility>

#include <vlxkit/Discovery.hpp>
#include <vlxkit/Pace.hpp>
#include <vlxkit/Producer.hpp>

#include "Device.hpp"

namespace vlx::alsa
{

namespace
{

constexpr TimeValue MaxFrameNs = 20'000'000;
// Receivers that wait for the stream join it meanwhile, so that they get its beginning.
constexpr std::chrono::milliseconds JoinTime{50};
// Period in which a sequence may have to be announced again, and the interval of the checks.
constexpr std::chrono::milliseconds AnnounceTime{1000};
constexpr std::chrono::milliseconds AnnounceInterval{10};
// How often a drain looks whether it is aborted.
constexpr std::chrono::milliseconds AbortInterval{50};

class Playback : public Device
{
public:
    explicit Playback(Settings settings)
        : Device(std::move(settings), SND_PCM_STREAM_PLAYBACK), m_producer(makeOptions(m_settings))
    {
    }

protected:
    int onPrepare() override;

    int onStart() override
    {
        m_pace.begin(std::max(getNow(), m_sentUntil));
        return 0;
    }

    snd_pcm_sframes_t getDelay() override;
    int drain() override;

    void shutDown() override
    {
        joinThread();
        m_producer.close();
    }

    void abandon() override
    {
        m_producer.close();
    }

    void run() override;

private:
    static kit::ProducerOptions makeOptions(const Settings& settings)
    {
        kit::ProducerOptions options{.name = settings.name};
        options.clock = settings.clock;
        options.clockPort = settings.clockPort;
        if (settings.clockPort != 0)
            options.clockAddress = settings.clockAddress;
        options.socketMode = settings.socketMode;
        options.realTime = settings.realTime;
        options.onNotice = [](const std::string& /*notice*/) {};
        return options;
    }

    void idle(std::unique_lock<std::mutex>& lock);
    void onEmpty();
    void sendFrame(std::unique_lock<std::mutex>& lock, std::uint64_t samples);

    kit::Producer m_producer;
    bool m_isOpen = false;
    std::chrono::steady_clock::time_point m_announcedUntil;
    std::mutex m_sending; // held during send(), without m_mutex; locked after that
    // Guarded by m_mutex.
    kit::Pace m_pace;
    std::uint64_t m_frameSize = 1; // samples
    TimeValue m_sentUntil = 0;     // end of the last frame
    Buffer m_frame;
};

int Playback::onPrepare()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const std::lock_guard<std::mutex> sending(m_sending);
    m_pace = kit::Pace(m_format.rate);
    m_frameSize = std::clamp<std::uint64_t>(
        m_format.toSamples(MaxFrameNs), 1, std::max<std::uint64_t>(m_io.period_size, 1));
    m_frame.resize(m_frameSize * m_format.getBytesPerSample());

    const OpenersScheduling scheduling(*this);
    const kit::Status status =
        m_isOpen ? m_producer.setFormat(m_format) : m_producer.open(m_format);
    if (!status)
    {
        SNDERR("vlx: %s", status.getText().c_str());
        return toErrorNumber(status.getCode());
    }
    m_announcedUntil = std::chrono::steady_clock::now() + AnnounceTime;
    if (m_isOpen)
        return 0;
    static_cast<void>(m_producer.waitForReceivers(1, JoinTime));
    const kit::RealTimeScope realTime(m_settings.realTime);
    startThread();
    m_isOpen = true;
    return 0;
}

/// @return samples that are not sent yet, and those of the last frame whose time has not passed
snd_pcm_sframes_t Playback::getDelay()
{
    const TimeValue now = getNow();
    const std::uint64_t ahead = m_format.toSamples(std::max(m_sentUntil, now) - now);
    return static_cast<snd_pcm_sframes_t>(getProgramPosition() - m_position + ahead);
}

int Playback::drain()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_error != 0)
        return m_error;
    if (!m_isDraining)
    {
        if (!m_isRunning && !m_isXrun)
        {
            m_isRunning = true;
            onStart();
        }
        m_isDraining = true;
        m_changed.notify_all();
        updateDescriptor();
    }
    while (m_isRunning && !m_quits && m_io.nonblock == 0) // snd_pcm_abort() only sets nonblock
        m_changed.wait_for(lock, AbortInterval);
    return m_isRunning && !m_quits ? -EAGAIN : m_error;
}

void Playback::run()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_quits)
    {
        const TimeValue due = m_pace.getDueTime();
        const std::uint64_t written = getProgramPosition();
        if (!m_isRunning || m_isPaused)
            idle(lock);
        else if (getNow() < due)
            m_changed.wait_until(lock, toDeadline(due));
        else if (written > m_position)
            sendFrame(lock, std::min(m_frameSize, written - m_position));
        else
            onEmpty();
    }
}

/// Waits for samples. Receivers that join as the stream begins get its format meanwhile.
void Playback::idle(std::unique_lock<std::mutex>& lock)
{
    if (std::chrono::steady_clock::now() >= m_announcedUntil)
    {
        m_changed.wait(lock);
        return;
    }
    m_producer.checkReceivers();
    m_changed.wait_for(lock, AnnounceInterval);
}

/// Called when everything was played.
void Playback::onEmpty()
{
    if (m_isDraining)
    {
        m_isRunning = false;
        m_changed.notify_all();
        updateDescriptor();
    }
    else if (runsFreely())
    {
        m_pace.advance(m_frameSize, getNow());
        m_position += m_frameSize;
        updateDescriptor();
    }
    else
        reportXrun();
}

void Playback::sendFrame(std::unique_lock<std::mutex>& lock, std::uint64_t samples)
{
    const std::size_t sampleBytes = m_format.getBytesPerSample();
    const std::uint64_t first = std::min(samples, m_bufferSize - m_position % m_bufferSize);
    std::copy_n(at(m_position), first * sampleBytes, m_frame.begin());
    std::copy_n(
        at(0), (samples - first) * sampleBytes,
        m_frame.begin() + static_cast<std::ptrdiff_t>(first * sampleBytes));
    const TimeValue timestamp = m_pace.getTimestamp();
    const TimeValue duration = m_pace.getDuration(samples);
    m_pace.advance(samples, getNow());
    m_position += samples;
    m_sentUntil = timestamp + duration;
    updateDescriptor();

    std::unique_lock<std::mutex> sending(m_sending);
    lock.unlock();
    const kit::Status status =
        m_producer.send(timestamp, duration, ByteView(m_frame.data(), samples * sampleBytes));
    sending.unlock();
    lock.lock();
    if (!status)
        fail(lock, toErrorNumber(status.getCode()), status.getText());
}

} // namespace

std::unique_ptr<Device> makePlayback(Settings settings)
{
    return std::make_unique<Playback>(std::move(settings));
}

} // namespace vlx::alsa
