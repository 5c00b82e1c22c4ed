#include "AlsaDevice.hpp"

#include <algorithm>
#include <cmath>
#include <cstdarg>

#include <samplerate.h>

#include <miscUtils/MiscUtils.hpp>

namespace vlx::tool
{

namespace
{

constexpr double NsPerSecond = 1e9;
constexpr unsigned int BufferUs = 200'000;
constexpr unsigned int PeriodUs = 5'000;

// ALSA would print to standard error by itself.
void keepSilent(const char*, int, const char*, int, const char*, ...) {}

std::string explain(int error)
{
    return ::snd_strerror(error);
}

double getNow()
{
    return static_cast<double>(miscUtils::getMonotonicSysclockTime());
}

/// Hardware parameters of a device, freed at the end.
class HardwareParameters
{
public:
    HardwareParameters()
    {
        ::snd_pcm_hw_params_malloc(&m_parameters);
    }
    ~HardwareParameters()
    {
        ::snd_pcm_hw_params_free(m_parameters);
    }
    HardwareParameters(const HardwareParameters&) = delete;
    HardwareParameters& operator=(const HardwareParameters&) = delete;

    snd_pcm_hw_params_t* get()
    {
        return m_parameters;
    }

private:
    snd_pcm_hw_params_t* m_parameters = nullptr;
};

int chooseFormat(snd_pcm_t* pcm, snd_pcm_hw_params_t* hardware, snd_pcm_format_t& chosen)
{
    for (const snd_pcm_format_t format :
         {SND_PCM_FORMAT_FLOAT, SND_PCM_FORMAT_S32, SND_PCM_FORMAT_S16})
    {
        chosen = format;
        if (::snd_pcm_hw_params_set_format(pcm, hardware, format) == 0)
            return 0;
    }
    return -EINVAL;
}

// Started by us alone, with times of the clock that everything here stands on.
int setSoftwareParameters(snd_pcm_t* pcm)
{
    snd_pcm_sw_params_t* software = nullptr;
    int error = ::snd_pcm_sw_params_malloc(&software);
    if (error != 0)
        return error;
    snd_pcm_uframes_t boundary = 0;
    ::snd_pcm_sw_params_current(pcm, software);
    ::snd_pcm_sw_params_get_boundary(software, &boundary);
    ::snd_pcm_sw_params_set_start_threshold(pcm, software, boundary);
    ::snd_pcm_sw_params_set_tstamp_mode(pcm, software, SND_PCM_TSTAMP_ENABLE);
    ::snd_pcm_sw_params_set_tstamp_type(pcm, software, SND_PCM_TSTAMP_TYPE_MONOTONIC);
    error = ::snd_pcm_sw_params(pcm, software);
    ::snd_pcm_sw_params_free(software);
    return error;
}

} // unnamed namespace

AlsaDevice::~AlsaDevice()
{
    if (m_pcm != nullptr)
        ::snd_pcm_close(m_pcm);
}

std::string AlsaDevice::open(const std::string& name)
{
    ::snd_lib_error_set_handler(keepSilent);
    const int error =
        ::snd_pcm_open(&m_pcm, name.c_str(), SND_PCM_STREAM_PLAYBACK, SND_PCM_NONBLOCK);
    return error == 0 ? std::string() : explain(error);
}

std::string AlsaDevice::configure(std::uint32_t rate, std::uint32_t channels)
{
    HardwareParameters hardware;
    unsigned int bufferUs = BufferUs;
    unsigned int periodUs = PeriodUs;
    m_rate = rate;
    m_channels = channels;
    ::snd_pcm_hw_params_any(m_pcm, hardware.get());
    int error =
        ::snd_pcm_hw_params_set_access(m_pcm, hardware.get(), SND_PCM_ACCESS_RW_INTERLEAVED);
    if (error == 0)
        error = chooseFormat(m_pcm, hardware.get(), m_format);
    if (error == 0 && ::snd_pcm_hw_params_set_channels(m_pcm, hardware.get(), channels) != 0)
        return "it does not take " + std::to_string(channels) + " channels";
    if (error == 0)
        error = ::snd_pcm_hw_params_set_rate_near(m_pcm, hardware.get(), &m_rate, nullptr);
    if (error == 0)
        ::snd_pcm_hw_params_set_period_time_near(m_pcm, hardware.get(), &periodUs, nullptr);
    if (error == 0)
        ::snd_pcm_hw_params_set_buffer_time_near(m_pcm, hardware.get(), &bufferUs, nullptr);
    if (error == 0)
        error = ::snd_pcm_hw_params(m_pcm, hardware.get());
    if (error == 0)
        error = setSoftwareParameters(m_pcm);
    m_minLead = 2 * periodUs * 1e-6;
    return error == 0 ? std::string() : explain(error);
}

std::string AlsaDevice::begin(double leadSeconds)
{
    const auto lead = static_cast<std::size_t>(std::lround(leadSeconds * m_rate));
    ::snd_pcm_drop(m_pcm);
    int error = ::snd_pcm_prepare(m_pcm);
    if (error != 0)
        return explain(error);
    m_space = lead;
    const std::uint64_t firstSample = m_numWritten;
    if (!write(std::vector<float>(lead * m_channels)))
        return m_problem.empty() ? "it takes nothing" : m_problem;
    error = ::snd_pcm_start(m_pcm);
    if (error != 0)
        return explain(error);

    m_origins.push_back({firstSample, miscUtils::getMonotonicSysclockTime()});
    snd_pcm_sframes_t delay = 0;
    m_clockless = ::snd_pcm_delay(m_pcm, &delay) == 0 && delay <= 0;
    return {};
}

bool AlsaDevice::measure()
{
    snd_pcm_status_t* status = nullptr;
    snd_pcm_status_alloca(&status);
    if (!note(::snd_pcm_status(m_pcm, status)))
        return false;
    const snd_pcm_state_t state = ::snd_pcm_status_get_state(status);
    if (state == SND_PCM_STATE_DISCONNECTED)
        return note(-ENODEV);
    if (state != SND_PCM_STATE_RUNNING)
        return false;

    m_space = ::snd_pcm_status_get_avail(status);
    const double now = getNow();
    if (m_clockless)
    {
        const Origin& origin = m_origins.back();
        m_nextTime = static_cast<double>(origin.time) +
                     static_cast<double>(m_numWritten - origin.sample) * NsPerSecond / m_rate;
        return m_nextTime > now;
    }
    // Devices without times of their own say 0.
    snd_htimestamp_t stamp{};
    ::snd_pcm_status_get_htstamp(status, &stamp);
    double time =
        static_cast<double>(stamp.tv_sec) * NsPerSecond + static_cast<double>(stamp.tv_nsec);
    if (std::abs(now - time) > NsPerSecond)
        time = now;
    m_nextTime =
        time + static_cast<double>(::snd_pcm_status_get_delay(status)) * NsPerSecond / m_rate;
    return true;
}

bool AlsaDevice::write(const std::vector<float>& values)
{
    const void* data = values.data();
    if (m_format == SND_PCM_FORMAT_S32)
    {
        m_integers.resize(values.size());
        ::src_float_to_int_array(values.data(), m_integers.data(), static_cast<int>(values.size()));
        data = m_integers.data();
    }
    else if (m_format == SND_PCM_FORMAT_S16)
    {
        m_shorts.resize(values.size());
        ::src_float_to_short_array(values.data(), m_shorts.data(), static_cast<int>(values.size()));
        data = m_shorts.data();
    }
    const std::size_t count = values.size() / m_channels;
    const snd_pcm_sframes_t written = ::snd_pcm_writei(m_pcm, data, count);
    if (!note(written))
        return false;
    m_numWritten += static_cast<std::uint64_t>(written);
    m_nextTime += static_cast<double>(written) * NsPerSecond / m_rate;
    m_space -= std::min(m_space, static_cast<std::size_t>(written));
    return static_cast<std::size_t>(written) == count;
}

void AlsaDevice::end(bool drain)
{
    if (drain)
    {
        ::snd_pcm_nonblock(m_pcm, 0);
        ::snd_pcm_drain(m_pcm);
    }
    ::snd_pcm_drop(m_pcm);
}

// Running dry and being suspended are mended by a new beginning.
bool AlsaDevice::note(long result)
{
    if (result < 0 && result != -EPIPE && result != -ESTRPIPE && result != -EAGAIN)
        m_problem = explain(static_cast<int>(result));
    return result >= 0;
}

} // namespace vlx::tool
