#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <optional>
#include <thread>

#include <nlohmann/json.hpp>
#include <samplerate.h>

#include "AlsaDevice.hpp"
#include "AudioOutput.hpp"
#include "PcmCodec.hpp"
#include "RateControl.hpp"
#include "common/Duration.hpp"
#include "common/ExitCodes.hpp"
#include "common/StopSignal.hpp"

namespace vlx::tool
{

namespace
{

constexpr double NsPerSecond = 1e9;
constexpr auto WakeInterval = std::chrono::milliseconds(5);
constexpr double BlockSeconds = 0.005;
// Written ahead of what leaves now, less if the latency is short: what a late thread may use up.
constexpr double MaxLeadSeconds = 0.1;
// Times of frames may jitter by this much and still continue one another.
constexpr double MaxJitterNs = 1e6;
// Beyond this the output jumps to where it belongs; below it the rate follows.
constexpr double MaxErrorSeconds = 0.005;
// Once following, nothing should be off by more than the initial error for so long.
constexpr double SettleSeconds = 1;
constexpr double MaxQueuedSeconds = 10;

/// A stretch of input that begins at a known time.
struct TimedSamples
{
    double dueNs = 0; ///< when the first one leaves, nanoseconds of CLOCK_MONOTONIC
    std::vector<float> values;
};

void appendFloats(const SampleValues& values, std::vector<float>& floats)
{
    std::visit(
        [&](const auto& vector)
        {
            using Value = typename std::decay_t<decltype(vector)>::value_type;
            constexpr double Scale = std::is_integral_v<Value>
                                         ? 1.0 / (std::uint64_t{1} << (8 * sizeof(Value) - 1))
                                         : 1.0;
            for (const Value value : vector)
                floats.push_back(static_cast<float>(static_cast<double>(value) * Scale));
        },
        values);
}

/// The input that has been handed to the resampler: which place of it leaves when.
///
/// Places are counted in samples since the resampler was reset.
class InputLine
{
public:
    void reset()
    {
        m_anchors.clear();
        m_numPut = 0;
        m_place = 0;
    }

    bool isEmpty() const
    {
        return m_anchors.empty();
    }

    void put(double dueNs, std::size_t samples)
    {
        m_anchors.push_back({static_cast<double>(m_numPut), dueNs});
        m_numPut += samples;
    }

    void advance(double samples)
    {
        m_place += samples;
        while (m_anchors.size() > 1 && m_anchors[1].place <= m_place)
            m_anchors.pop_front();
    }

    /// @return when the next output has to leave, by the frame that it lies in
    double getDueNs(double rate) const
    {
        const Anchor& anchor = m_anchors.front();
        return anchor.dueNs + (m_place - anchor.place) * NsPerSecond / rate;
    }

    /// @return when what comes next has to leave, if nothing is missing
    double getEndNs(double rate) const
    {
        const Anchor& anchor = m_anchors.back();
        return anchor.dueNs + (static_cast<double>(m_numPut) - anchor.place) * NsPerSecond / rate;
    }

private:
    struct Anchor
    {
        double place;
        double dueNs;
    };

    std::deque<Anchor> m_anchors;
    std::uint64_t m_numPut = 0;
    double m_place = 0; // of the next output
};

class AlsaOutput : public AudioOutput
{
public:
    AlsaOutput(const PlaySettings& settings, const StopSignal& stop)
        : m_settings(settings), m_stop(stop)
    {
        const std::string problem = m_device.open(settings.device);
        if (!problem.empty())
            throw CommandFailure(ExitCode::Failed, describe(problem));
    }

    ~AlsaOutput() override
    {
        join();
        if (m_resampler != nullptr)
            ::src_delete(m_resampler);
    }

    AlsaOutput(const AlsaOutput&) = delete;
    AlsaOutput& operator=(const AlsaOutput&) = delete;

    bool start(const kit::StreamFormat& format) override
    {
        m_format = format;
        m_channels = format.channels;
        int error = 0;
        m_resampler = ::src_new(SRC_SINC_MEDIUM_QUALITY, static_cast<int>(m_channels), &error);
        if (m_resampler == nullptr)
            return fail(::src_strerror(error));
        std::string problem = m_device.configure(format.rate, format.channels);
        const double latency = std::chrono::duration<double>(m_settings.latency).count();
        m_leadSeconds = std::max(m_device.getMinLead(), std::min(MaxLeadSeconds, latency / 2));
        if (problem.empty())
            problem = m_device.begin(m_leadSeconds);
        if (!problem.empty())
            return fail(problem);

        const kit::RealTimeScope scope(m_settings.realTime);
        m_thread = std::thread([this] { loop(); });
        return true;
    }

    bool write(const ByteView& bytes, TimeValue time) override
    {
        decodeSamples(bytes, m_format.sampleFormat, m_values);
        TimedSamples samples;
        samples.dueNs = static_cast<double>(time) + static_cast<double>(m_settings.latency.count());
        appendFloats(m_values, samples.values);

        const std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_threadProblem.empty())
            return fail(m_threadProblem);
        const std::size_t maxQueued =
            static_cast<std::size_t>(MaxQueuedSeconds * m_format.rate) * m_channels;
        m_numQueued += samples.values.size();
        m_queue.push_back(std::move(samples));
        while (m_numQueued > maxQueued)
            m_numLate += dropFront();
        return true;
    }

    bool finish() override
    {
        join();
        return m_threadProblem.empty() || fail(m_threadProblem);
    }

    void addToReport(nlohmann::ordered_json& report) const override
    {
        nlohmann::ordered_json origins = nlohmann::ordered_json::array();
        for (const AlsaDevice::Origin& origin : m_device.getOrigins())
            origins.push_back({{"sample", origin.sample}, {"time", origin.time}});
        report["play"].push_back(
            {{"device", m_settings.device},
             {"rate", m_device.getRate()},
             {"channels", m_channels},
             {"latency_ns", m_settings.latency.count()},
             {"samples", m_device.getNumWritten()},
             {"origins", origins},
             {"underruns", m_numUnderruns},
             {"late_samples", m_numLate},
             {"jumps", m_numJumps},
             {"max_error_ns", std::llround(m_maxError * NsPerSecond)},
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
    std::string describe(const std::string& problem) const
    {
        return "cannot play on \"" + m_settings.device + "\": " + problem;
    }

    bool fail(const std::string& problem)
    {
        m_problem = describe(problem);
        return false;
    }

    void join()
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_closing = true;
        }
        m_condition.notify_one();
        if (m_thread.joinable())
            m_thread.join();
    }

    void loop()
    {
        bool drained = false;
        while (!drained && !m_stop.isRequested())
        {
            if (!fillDevice())
            {
                const std::lock_guard<std::mutex> lock(m_mutex);
                m_threadProblem = m_deviceProblem;
                return;
            }
            std::unique_lock<std::mutex> lock(m_mutex);
            if (!m_closing)
                m_condition.wait_for(lock, WakeInterval, [this] { return m_closing; });
            else if (m_queue.empty() && !m_playing)
                drained = true;
            else
                m_condition.wait_for(lock, WakeInterval);
        }
        m_device.end(drained);
    }

    /// Writes ahead as much as is wanted.
    ///
    /// @return false if the device is of no use any more
    bool fillDevice()
    {
        if (!m_device.measure() && !beginAgain())
            return false;
        followClock();
        const auto block = static_cast<std::size_t>(BlockSeconds * m_device.getRate()) + 1;
        const double until = getNowNs() + m_leadSeconds * NsPerSecond;
        while (m_device.getNextTime() < until && m_device.getSpace() >= block)
        {
            renderBlock(block);
            if (!m_device.write(m_block) && !beginAgain())
                return false;
        }
        return true;
    }

    bool beginAgain()
    {
        m_deviceProblem = m_device.getProblem();
        if (m_deviceProblem.empty())
        {
            ++m_numUnderruns;
            m_playing = false;
            m_deviceProblem = m_device.begin(m_leadSeconds);
        }
        if (m_deviceProblem.empty() && !m_device.measure())
            m_deviceProblem = m_device.getProblem();
        return m_deviceProblem.empty();
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
        const double error =
            (m_device.getNextTime() - m_input.getDueNs(m_format.rate)) / NsPerSecond;
        if (std::abs(error) > MaxErrorSeconds)
        {
            ++m_numJumps;
            m_playing = false;
            return;
        }
        m_control.update(error, interval);
        m_settledSeconds += interval;
        if (m_settledSeconds > SettleSeconds)
            m_maxError = std::max(m_maxError, std::abs(error));
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
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            skipLate(nextTime);
            if (!m_queue.empty())
            {
                const double distance = (m_queue.front().dueNs - nextTime) * rate / NsPerSecond;
                m_playing = distance < static_cast<double>(samples);
                if (m_playing)
                    silence = static_cast<std::size_t>(std::max(0.0, std::round(distance)));
            }
        }
        m_block.resize(m_block.size() + std::min(silence, samples) * m_channels);
        if (!m_playing)
            return;
        ::src_reset(m_resampler);
        m_input.reset();
        m_pending.clear();
        m_flushing = false;
        m_control.forgetError();
        m_settledSeconds = 0;
        takeInput();
    }

    /// Drops what should have left already. The queue is locked by the caller.
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
        const std::lock_guard<std::mutex> lock(m_mutex);
        const bool first = m_input.isEmpty();
        if (m_queue.empty() ||
            (!first &&
             std::abs(m_queue.front().dueNs - m_input.getEndNs(m_format.rate)) > MaxJitterNs))
        {
            m_flushing = true;
            return;
        }
        const TimedSamples& front = m_queue.front();
        m_input.put(front.dueNs, front.values.size() / m_channels);
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
        ::src_set_ratio(m_resampler, ratio); // at once, not by and by: its place stays known
        const bool ok = ::src_process(m_resampler, &data) == 0;
        m_block.resize(before + static_cast<std::size_t>(data.output_frames_gen) * m_channels);
        m_pending.erase(
            m_pending.begin(),
            m_pending.begin() + data.input_frames_used * std::ptrdiff_t(m_channels));
        m_input.advance(static_cast<double>(data.output_frames_gen) / ratio);
        if (!ok || (m_flushing && data.output_frames_gen == 0))
            m_playing = false;
        else if (static_cast<std::size_t>(data.output_frames_gen) < samples && !m_flushing)
            takeInput();
    }

    const PlaySettings m_settings;
    const StopSignal& m_stop;
    kit::StreamFormat m_format;
    std::size_t m_channels = 0;
    SampleValues m_values;
    double m_leadSeconds = 0;

    std::mutex m_mutex;
    std::condition_variable m_condition;
    // Guarded by m_mutex.
    std::deque<TimedSamples> m_queue;
    std::size_t m_numQueued = 0; // values
    bool m_closing = false;
    std::string m_threadProblem;
    std::uint64_t m_numLate = 0; // samples of the input

    // The playing thread's, and after its end whoever called finish().
    AlsaDevice m_device;
    SRC_STATE* m_resampler = nullptr;
    RateControl m_control;
    InputLine m_input;
    std::vector<float> m_pending; // that the resampler has not taken
    std::vector<float> m_block;
    bool m_playing = false;  // the resampler gives what leaves next; otherwise silence does
    bool m_flushing = false; // the resampler gets no more until it is reset
    double m_lastUpdateNs = 0;
    double m_settledSeconds = 0;
    double m_maxError = 0; // seconds, of what plays for some time
    std::uint64_t m_numUnderruns = 0;
    std::uint64_t m_numJumps = 0;
    std::string m_deviceProblem;

    std::thread m_thread; // last: it uses all of the above
};

} // unnamed namespace

std::unique_ptr<AudioOutput> openPlayOutput(const PlaySettings& settings, const StopSignal& stop)
{
    return std::make_unique<AlsaOutput>(settings, stop);
}

} // namespace vlx::tool
