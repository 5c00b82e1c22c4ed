#include <algorithm>
#include <cmath>
#include <deque>
#include <memory>
#include <optional>

#include <nlohmann/json.hpp>
#include <samplerate.h>

#include <vlxkit/RateControl.hpp>

#include "AlsaDevice.hpp"
#include "AudioOutput.hpp"
#include "PcmCodec.hpp"
#include "common/Duration.hpp"
#include "common/ExitCodes.hpp"
#include "common/StopSignal.hpp"

namespace vlx::tool
{

namespace
{

constexpr double NsPerSecond = 1e9;
constexpr double BlockSeconds = 0.005;
// Written ahead of what leaves now, less if the latency is short: what a late thread may use up.
constexpr double MaxLeadSeconds = 0.1;
// Times of frames may jitter by this much and still continue one another.
constexpr double MaxJitterNs = 1e6;
// Beyond this the output jumps to where it belongs; below it the rate follows.
constexpr double MaxErrorSeconds = 0.005;
constexpr double MaxQueuedSeconds = 10;

/// A stretch of input that begins at a known time.
struct TimedSamples
{
    double dueNs = 0; ///< when the first one leaves, nanoseconds of CLOCK_MONOTONIC
    std::vector<float> values;
};

class AlsaOutput : public AudioOutput
{
public:
    AlsaOutput(const std::string& device, std::chrono::nanoseconds latency, const StopSignal& stop)
        : m_name(device), m_latency(latency), m_stop(stop), m_device(device)
    {
    }

    void start(const kit::StreamFormat& format) override
    {
        m_format = format;
        m_channels = format.channels;
        int error = 0;
        m_resampler.reset(::src_new(SRC_SINC_MEDIUM_QUALITY, static_cast<int>(m_channels), &error));
        if (m_resampler == nullptr)
            throw CommandFailure(ExitCode::Failed, ::src_strerror(error));
        m_device.configure(format.rate, format.channels);
        const double latency = std::chrono::duration<double>(m_latency).count();
        m_leadSeconds = std::max(m_device.getMinLead(), std::min(MaxLeadSeconds, latency / 2));
        m_device.begin(m_leadSeconds);
        m_started = true;
    }

    void write(const ByteView& bytes, TimeValue time) override
    {
        TimedSamples samples;
        samples.dueNs = static_cast<double>(time) + static_cast<double>(m_latency.count());
        decodeLevels(bytes, m_format.sampleFormat, samples.values);

        const std::size_t maxQueued =
            static_cast<std::size_t>(MaxQueuedSeconds * m_format.rate) * m_channels;
        m_numQueued += samples.values.size();
        m_queue.push_back(std::move(samples));
        while (m_numQueued > maxQueued)
            m_numLate += dropFront();
    }

    /// Writes ahead as much as is wanted.
    void work() override
    {
        if (!m_started)
            return;
        if (!m_device.measure())
            beginAgain();
        followClock();
        const auto block = static_cast<std::size_t>(BlockSeconds * m_device.getRate()) + 1;
        const double until = getNowNs() + m_leadSeconds * NsPerSecond;
        while (m_device.getNextTime() < until && m_device.getSpace() >= block)
        {
            renderBlock(block);
            if (!m_device.write(m_block))
                beginAgain();
        }
    }

    void finish() override
    {
        const auto isPlayed = [this] { return m_queue.empty() && !m_playing; };
        while (m_started && !isPlayed() &&
               !m_stop.waitUntil(std::chrono::steady_clock::now() + WorkInterval))
            work();
        if (m_started)
            m_device.end(isPlayed());
    }

    void addToReport(nlohmann::ordered_json& report) const override
    {
        nlohmann::ordered_json origins = nlohmann::ordered_json::array();
        for (const AlsaDevice::Origin& origin : m_device.getOrigins())
            origins.push_back({{"sample", origin.sample}, {"time", origin.time}});
        report["play"].push_back(
            {{"device", m_name},
             {"rate", m_device.getRate()},
             {"latency_ns", m_latency.count()},
             {"samples", m_device.getNumWritten()},
             {"origins", origins},
             {"underruns", m_numUnderruns},
             {"late_samples", m_numLate},
             {"speed_ppm", (m_control.getSpeed() - 1) * 1e6}});
    }

    std::string describeFaults() const override
    {
        std::string text;
        if (m_numUnderruns > 0)
            text =
                std::to_string(m_numUnderruns) + (m_numUnderruns == 1 ? " underrun" : " underruns");
        if (m_numLate > 0)
            text += (text.empty() ? "" : ", ") +
                    toText(std::chrono::milliseconds(m_numLate * 1000 / m_format.rate + 1)) +
                    " came too late to be played (a longer --latency helps)";
        return text;
    }

private:
    struct Deleter
    {
        void operator()(SRC_STATE* state) const
        {
            ::src_delete(state);
        }
    };

    void beginAgain()
    {
        ++m_numUnderruns;
        m_playing = false;
        m_device.begin(m_leadSeconds);
        m_device.measure();
    }

    static double getNowNs()
    {
        return static_cast<double>(std::chrono::steady_clock::now().time_since_epoch().count());
    }

    // Once per wake-up: how far is what leaves next from when it is due?
    void followClock()
    {
        const double interval = (m_device.getNextTime() - m_lastUpdateNs) / NsPerSecond;
        m_lastUpdateNs = m_device.getNextTime();
        if (!m_playing)
            return;
        // What comes out next lies before the end of what was put in.
        const double dueNs = *m_inputEndNs - m_unplayed * NsPerSecond / m_format.rate;
        const double error = (m_device.getNextTime() - dueNs) / NsPerSecond;
        if (std::abs(error) > MaxErrorSeconds)
            m_playing = false;
        else
            m_control.update(error, interval);
    }

    void renderBlock(std::size_t samples)
    {
        m_block.clear();
        while (m_block.size() < samples * m_channels)
        {
            const std::size_t rest = samples - m_block.size() / m_channels;
            if (m_playing)
                renderAudio(rest);
            else
                renderSilence(rest);
        }
    }

    /// Renders silence up to where the next input is due, and gets ready to play it.
    void renderSilence(std::size_t samples)
    {
        const double rate = m_device.getRate();
        const std::size_t ready = m_block.size() / m_channels;
        const double nextTime =
            m_device.getNextTime() + static_cast<double>(ready) * NsPerSecond / rate;
        std::size_t silence = samples;
        skipLate(nextTime);
        if (!m_queue.empty())
        {
            const double distance = (m_queue.front().dueNs - nextTime) * rate / NsPerSecond;
            m_playing = distance < static_cast<double>(samples);
            if (m_playing)
                silence = static_cast<std::size_t>(std::max(0.0, std::round(distance)));
        }
        m_block.resize(m_block.size() + std::min(silence, samples) * m_channels);
        if (!m_playing)
            return;
        ::src_reset(m_resampler.get());
        m_inputEndNs.reset();
        m_unplayed = 0;
        m_pending.clear();
        m_flushing = false;
        m_control.forgetError();
        takeInput();
    }

    /// Drops what should have left already.
    void skipLate(double nextTime)
    {
        while (!m_queue.empty())
        {
            TimedSamples& front = m_queue.front();
            const double late = std::round((nextTime - front.dueNs) * m_format.rate / NsPerSecond);
            if (late <= 0)
                return;
            const std::size_t size = front.values.size() / m_channels;
            if (late >= static_cast<double>(size))
            {
                m_numLate += dropFront();
                continue;
            }
            const auto count = static_cast<std::ptrdiff_t>(late);
            front.values.erase(
                front.values.begin(), front.values.begin() + count * std::ptrdiff_t(m_channels));
            front.dueNs += late * NsPerSecond / m_format.rate;
            m_numQueued -= static_cast<std::size_t>(count) * m_channels;
            m_numLate += static_cast<std::uint64_t>(count);
            return;
        }
    }

    /// @return samples that were dropped
    std::size_t dropFront()
    {
        const std::size_t size = m_queue.front().values.size();
        m_numQueued -= size;
        m_queue.pop_front();
        return size / m_channels;
    }

    /// Hands the next frame to the resampler, if it continues what the resampler has.
    void takeInput()
    {
        if (m_queue.empty() ||
            (m_inputEndNs && std::abs(m_queue.front().dueNs - *m_inputEndNs) > MaxJitterNs))
        {
            m_flushing = true;
            return;
        }
        const TimedSamples& front = m_queue.front();
        const std::size_t numSamples = front.values.size() / m_channels;
        const auto samples = static_cast<double>(numSamples);
        m_inputEndNs = front.dueNs + samples * NsPerSecond / m_format.rate;
        m_unplayed += samples;
        m_pending.insert(m_pending.end(), front.values.begin(), front.values.end());
        dropFront();
    }

    void renderAudio(std::size_t samples)
    {
        const double ratio = m_device.getRate() / (m_format.rate * m_control.getSpeed());
        const std::size_t before = m_block.size();
        m_block.resize(before + samples * m_channels);
        SRC_DATA data{};
        data.data_in = m_pending.data();
        data.input_frames = static_cast<long>(m_pending.size() / m_channels);
        data.data_out = m_block.data() + before;
        data.output_frames = static_cast<long>(samples);
        data.end_of_input = m_flushing ? 1 : 0;
        data.src_ratio = ratio;
        ::src_set_ratio(m_resampler.get(), ratio); // at once, not by and by: its place stays known
        const bool ok = ::src_process(m_resampler.get(), &data) == 0;
        m_block.resize(before + static_cast<std::size_t>(data.output_frames_gen) * m_channels);
        m_pending.erase(
            m_pending.begin(),
            m_pending.begin() + data.input_frames_used * std::ptrdiff_t(m_channels));
        m_unplayed -= static_cast<double>(data.output_frames_gen) / ratio;
        if (!ok || (m_flushing && data.output_frames_gen == 0))
            m_playing = false;
        else if (static_cast<std::size_t>(data.output_frames_gen) < samples && !m_flushing)
            takeInput();
    }

    const std::string m_name;
    const std::chrono::nanoseconds m_latency;
    const StopSignal& m_stop;
    kit::StreamFormat m_format;
    std::size_t m_channels = 0;
    double m_leadSeconds = 0;
    bool m_started = false;
    std::deque<TimedSamples> m_queue;
    std::size_t m_numQueued = 0; // values
    AlsaDevice m_device;
    std::unique_ptr<SRC_STATE, Deleter> m_resampler;
    kit::RateControl m_control;
    std::optional<double> m_inputEndNs; // when what comes behind all that was put in has to leave
    double m_unplayed = 0;              // samples that were put in and have not come out
    std::vector<float> m_pending;       // that the resampler has not taken
    std::vector<float> m_block;
    bool m_playing = false;  // the resampler gives what leaves next; otherwise silence does
    bool m_flushing = false; // the resampler gets no more until it is reset
    double m_lastUpdateNs = 0;
    std::uint64_t m_numUnderruns = 0;
    std::uint64_t m_numLate = 0; // samples of the input
};

} // unnamed namespace

std::unique_ptr<AudioOutput>
openPlayOutput(const std::string& device, std::chrono::nanoseconds latency, const StopSignal& stop)
{
    return std::make_unique<AlsaOutput>(device, latency, stop);
}

} // namespace vlx::tool
