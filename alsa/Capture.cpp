#include <algorithm>
#include <cerrno>
#include <utility>
#include <variant>

#include <vlxkit/Consumer.hpp>

#include "Device.hpp"

namespace vlx::alsa
{

namespace
{

constexpr TimeValue Millisecond = 1'000'000;
// A frame may be this late before silence takes its place.
constexpr TimeValue Lateness = 200 * Millisecond;
// How often the thread looks at the clock: for silence, and before the first frame.
constexpr std::chrono::milliseconds Tick{10};
constexpr std::chrono::milliseconds IdleTick{100};

class Capture : public Device
{
public:
    explicit Capture(Settings settings)
        : Device(std::move(settings), SND_PCM_STREAM_CAPTURE), m_consumer(makeOptions(m_settings))
    {
    }

protected:
    int onStart() override;

    snd_pcm_sframes_t getDelay() override
    {
        return static_cast<snd_pcm_sframes_t>(m_position - getProgramPosition());
    }

    void shutDown() override
    {
        m_consumer.requestStop();
        joinThread();
        m_consumer.stop();
    }

    void abandon() override
    {
        m_consumer.stop();
    }

    void run() override;

private:
    static kit::ConsumerOptions makeOptions(const Settings& settings)
    {
        kit::ConsumerOptions options{.name = settings.name};
        options.realTime = settings.realTime;
        options.senderUser = settings.senderUser;
        options.onNotice = [](const std::string& /*notice*/) {};
        return options;
    }

    void note(const kit::ConsumerItem& item);
    void takeFrame(std::unique_lock<std::mutex>& lock, const kit::ReceivedFrame& frame);
    void onTick(std::unique_lock<std::mutex>& lock);
    std::uint64_t measureGap(const kit::ReceivedFrame& frame) const;
    bool fill(std::unique_lock<std::mutex>& lock, std::uint64_t samples);
    bool put(std::unique_lock<std::mutex>& lock, const std::uint8_t* data, std::uint64_t samples);

    kit::Consumer m_consumer;
    bool m_isOpen = false;
    std::optional<kit::StreamFormat> m_streamFormat; // only the thread uses it
    // Guarded by m_mutex.
    bool m_hasBegun = false;        // a frame has come; only the thread changes it
    TimeValue m_end = 0;            // when the next frame is expected
    std::uint64_t m_numFilled = 0;  // samples of silence since m_end
    std::uint64_t m_numSkipped = 0; // samples that are still to be skipped, for silence instead
};

/// Joins at the first start, not before: a sender that waits for its receivers begins then.
int Capture::onStart()
{
    m_end = getNow();
    m_numFilled = m_numSkipped = 0;
    if (m_isOpen)
        return 0;
    const OpenersScheduling scheduling(*this);
    if (const kit::Status status = m_consumer.start(); !status)
    {
        SNDERR("vlx: %s", status.getText().c_str());
        return toErrorNumber(status.getCode());
    }
    const kit::RealTimeScope realTime(m_settings.realTime);
    startThread();
    m_isOpen = true;
    return 0;
}

void Capture::run()
{
    while (true)
    {
        const std::optional<kit::ConsumerItem> item = m_consumer.read(m_hasBegun ? Tick : IdleTick);
        if (item)
            note(*item);
        std::unique_lock<std::mutex> lock(m_mutex);
        if (m_quits)
            return;
        const bool isOther = m_streamFormat && *m_streamFormat != m_format;
        if (isOther && m_isRunning)
            fail(
                lock, -ENODEV,
                "the stream's format has changed to " + kit::toText(*m_streamFormat) +
                    "; open the device again");
        else if (const auto* const frame = item ? std::get_if<kit::ReceivedFrame>(&*item) : nullptr)
            takeFrame(lock, *frame);
        else if (!item && m_isRunning)
            onTick(lock);
    }
}

/// Keeps the stream's format, and reports problems; without the lock.
void Capture::note(const kit::ConsumerItem& item)
{
    if (const auto* const format = std::get_if<kit::StreamFormat>(&item))
        m_streamFormat = *format;
    const auto* const event = std::get_if<kit::ConsumerEvent>(&item);
    if (event != nullptr && event->kind >= kit::ConsumerEvent::Kind::CannotPlay)
        SNDERR("vlx: %s", event->text.c_str());
}

void Capture::takeFrame(std::unique_lock<std::mutex>& lock, const kit::ReceivedFrame& frame)
{
    const bool isFirst = !std::exchange(m_hasBegun, true);
    const std::uint64_t samples = frame.data.size() / m_format.getBytesPerSample();
    const TimeValue end = frame.arrival + m_format.toNanoseconds(samples);
    if (!m_isRunning || m_isPaused)
    {
        m_end = end;
        return;
    }
    const std::uint64_t gap = isFirst ? 0 : measureGap(frame);
    if (gap > 0 && m_settings.reportsGaps)
    {
        reportXrun();
        return;
    }
    const std::uint64_t filled = std::exchange(m_numFilled, 0);
    if (gap < filled)
        m_numSkipped += filled - gap;
    m_end = end;
    if (gap > filled && !fill(lock, gap - filled))
        return;
    const std::uint64_t skipped = std::min(m_numSkipped, samples);
    m_numSkipped -= skipped;
    put(lock, frame.data.data() + skipped * m_format.getBytesPerSample(), samples - skipped);
}

/// Returns the number of samples that are missing before a frame. It follows from the timestamp,
/// unless the sender has returned with another clock, or a timestamp jumps further than time has
/// passed.
std::uint64_t Capture::measureGap(const kit::ReceivedFrame& frame) const
{
    const std::uint64_t waited =
        m_format.toSamples(frame.arrival > m_end ? frame.arrival - m_end : 0);
    const std::uint64_t longest = waited + m_format.toSamples(Lateness);
    if (frame.gapNs <= 0)
        return frame.isFirst ? waited : 0;
    const std::uint64_t gap = m_format.toSamples(static_cast<TimeValue>(frame.gapNs));
    return gap > longest ? waited : gap;
}

/// Delivers silence at the pace of the clock while no frame arrives.
void Capture::onTick(std::unique_lock<std::mutex>& lock)
{
    const TimeValue now = getNow();
    const TimeValue waited = now > m_end ? now - m_end : 0;
    const auto timeout = static_cast<TimeValue>(m_settings.timeout.count());
    if (timeout > 0 && waited >= timeout)
    {
        fail(lock, -EIO, "no frame arrived within TIMEOUT");
        return;
    }
    if (!m_hasBegun || m_isPaused || waited < Lateness)
        return;
    if (m_settings.reportsGaps)
    {
        reportXrun();
        m_hasBegun = false; // once
        return;
    }
    const std::uint64_t wanted = m_format.toSamples(waited - Lateness);
    if (wanted > m_numFilled)
    {
        const std::uint64_t samples = wanted - m_numFilled;
        m_numFilled = wanted;
        fill(lock, samples);
    }
}

/// @return as put()
bool Capture::fill(std::unique_lock<std::mutex>& lock, std::uint64_t samples)
{
    const std::uint64_t blockSize = std::clamp<std::uint64_t>(samples, 1, m_bufferSize);
    Buffer silence(blockSize * m_format.getBytesPerSample());
    ::snd_pcm_format_set_silence(
        m_io.format, silence.data(), static_cast<unsigned int>(blockSize * m_format.channels));
    for (std::uint64_t left = samples; left > 0;)
    {
        const std::uint64_t count = std::min(left, blockSize);
        if (!put(lock, silence.data(), count))
            return false;
        left -= count;
    }
    return true;
}

/// Puts samples into the buffer. If it is full, waits for the program until the next frame is due,
/// and then reports an overrun.
///
/// @return whether the program still records
bool Capture::put(
    std::unique_lock<std::mutex>& lock,
    const std::uint8_t* data,
    std::uint64_t samples)
{
    const auto deadline = toDeadline(getNow() + m_format.toNanoseconds(samples));
    while (samples > 0)
    {
        const auto getRoom = [this]
        {
            return runsFreely()
                       ? m_bufferSize
                       : m_bufferSize - (m_position -
                                         std::min<std::uint64_t>(getProgramPosition(), m_position));
        };
        m_changed.wait_until(
            lock, deadline, [&] { return getRoom() > 0 || !m_isRunning || m_quits; });
        if (!m_isRunning || m_quits)
            return false;
        const std::uint64_t count =
            std::min({samples, getRoom(), m_bufferSize - m_position % m_bufferSize});
        if (count == 0)
        {
            reportXrun();
            return false;
        }
        const std::size_t bytes = count * m_format.getBytesPerSample();
        std::copy_n(data, bytes, at(m_position));
        data += bytes;
        samples -= count;
        m_position += count;
        updateDescriptor();
    }
    return true;
}

} // namespace

std::unique_ptr<Device> makeCapture(Settings settings)
{
    return std::make_unique<Capture>(std::move(settings));
}

} // namespace vlx::alsa
