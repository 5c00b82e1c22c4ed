#include "AlsaDevice.hpp"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <iomanip>
#include <sstream>
#include <utility>

#include <miscUtils/MiscUtils.hpp>

#include "common/ExitCodes.hpp"
#include "common/Text.hpp"

namespace vlx::tool
{

namespace
{

constexpr double NsPerSecond = 1e9;
constexpr unsigned int BufferUs = 200'000;
constexpr unsigned int PeriodUs = 5'000;

// ALSA would print to standard error by itself.
void keepSilent(const char*, int, const char*, int, const char*, ...) {}

} // unnamed namespace

AlsaDevice::AlsaDevice(std::string name) : m_name(std::move(name))
{
    ::snd_lib_error_set_handler(keepSilent);
    // Its converter makes what the hardware wants of the samples; their rate stays ours.
    std::ostringstream converted;
    converted << "plug:" << std::quoted(m_name);
    check(
        ::snd_pcm_open(&m_pcm, converted.str().c_str(), SND_PCM_STREAM_PLAYBACK, SND_PCM_NONBLOCK));
}

AlsaDevice::~AlsaDevice()
{
    close();
}

void AlsaDevice::configure(std::uint32_t rate, std::uint32_t channels)
{
    snd_pcm_hw_params_t* hardware = nullptr;
    snd_pcm_hw_params_alloca(&hardware);
    check(::snd_pcm_hw_params_any(m_pcm, hardware));
    check(::snd_pcm_hw_params_set_access(m_pcm, hardware, SND_PCM_ACCESS_RW_INTERLEAVED));
    check(::snd_pcm_hw_params_set_format(m_pcm, hardware, SND_PCM_FORMAT_FLOAT));
    check(::snd_pcm_hw_params_set_rate_resample(m_pcm, hardware, 0));
    if (::snd_pcm_hw_params_set_channels(m_pcm, hardware, channels) != 0)
        fail("it does not support " + std::to_string(channels) + " channels");
    m_channels = channels;
    m_rate = rate;
    check(::snd_pcm_hw_params_set_rate_near(m_pcm, hardware, &m_rate, nullptr));
    unsigned int bufferUs = BufferUs;
    unsigned int periodUs = PeriodUs;
    ::snd_pcm_hw_params_set_period_time_near(m_pcm, hardware, &periodUs, nullptr);
    ::snd_pcm_hw_params_set_buffer_time_near(m_pcm, hardware, &bufferUs, nullptr);
    check(::snd_pcm_hw_params(m_pcm, hardware));
    m_minLead = 2 * periodUs * 1e-6;

    // Started by us alone, with times of the clock that everything here stands on.
    snd_pcm_sw_params_t* software = nullptr;
    snd_pcm_sw_params_alloca(&software);
    snd_pcm_uframes_t boundary = 0;
    ::snd_pcm_sw_params_current(m_pcm, software);
    ::snd_pcm_sw_params_get_boundary(software, &boundary);
    ::snd_pcm_sw_params_set_start_threshold(m_pcm, software, boundary);
    ::snd_pcm_sw_params_set_tstamp_mode(m_pcm, software, SND_PCM_TSTAMP_ENABLE);
    ::snd_pcm_sw_params_set_tstamp_type(m_pcm, software, SND_PCM_TSTAMP_TYPE_MONOTONIC);
    check(::snd_pcm_sw_params(m_pcm, software));
}

void AlsaDevice::begin(double leadSeconds)
{
    const auto lead = static_cast<std::size_t>(std::lround(leadSeconds * m_rate));
    ::snd_pcm_drop(m_pcm);
    check(::snd_pcm_prepare(m_pcm));
    m_space = lead;
    const std::uint64_t firstSample = m_numWritten;
    if (!write(std::vector<float>(lead * m_channels)))
        fail("it accepts no samples");
    check(::snd_pcm_start(m_pcm));

    m_origins.push_back({firstSample, miscUtils::getMonotonicSysclockTime()});
    snd_pcm_sframes_t delay = 0;
    m_clockless = ::snd_pcm_delay(m_pcm, &delay) == 0 && delay <= 0;
}

bool AlsaDevice::measure()
{
    snd_pcm_status_t* status = nullptr;
    snd_pcm_status_alloca(&status);
    if (!isGoing(::snd_pcm_status(m_pcm, status)))
        return false;
    const snd_pcm_state_t state = ::snd_pcm_status_get_state(status);
    if (state == SND_PCM_STATE_DISCONNECTED)
        check(-ENODEV);
    if (state != SND_PCM_STATE_RUNNING)
        return false;

    m_space = ::snd_pcm_status_get_avail(status);
    const auto now = static_cast<double>(miscUtils::getMonotonicSysclockTime());
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
    const std::size_t count = values.size() / m_channels;
    const snd_pcm_sframes_t written = ::snd_pcm_writei(m_pcm, values.data(), count);
    if (!isGoing(written))
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
    close();
}

void AlsaDevice::close()
{
    if (m_pcm != nullptr)
        ::snd_pcm_close(std::exchange(m_pcm, nullptr));
}

void AlsaDevice::fail(const std::string& problem) const
{
    throw CommandFailure(ExitCode::Failed, "cannot play on " + quote(m_name) + ": " + problem);
}

void AlsaDevice::check(int error) const
{
    if (error < 0)
        fail(::snd_strerror(error));
}

// Running dry and being suspended are mended by a new beginning.
bool AlsaDevice::isGoing(long result) const
{
    if (result != -EPIPE && result != -ESTRPIPE && result != -EAGAIN)
        check(static_cast<int>(result));
    return result >= 0;
}

} // namespace vlx::tool
