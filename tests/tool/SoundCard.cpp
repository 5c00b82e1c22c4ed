// A sound card for ALSA: it plays into a file, by a clock of its own that may run fast or slow, and
// reports a queue that it plays empty, as hardware does.

#include <chrono>
#include <cstdint>
#include <fstream>
#include <string>
#include <thread>

#include <alsa/asoundlib.h>
#include <alsa/pcm_external.h>

namespace vlx::testing
{

namespace
{

using SteadyClock = std::chrono::steady_clock;

class SoundCard
{
public:
    SoundCard(const std::string& path, double ppm)
        : m_file(path, std::ios::binary), m_speed(1 + ppm * 1e-6)
    {
        m_callbacks.start = [](snd_pcm_ioplug_t* io)
        {
            get(io).m_start = SteadyClock::now();
            return 0;
        };
        m_callbacks.stop = [](snd_pcm_ioplug_t*) { return 0; };
        m_callbacks.prepare = [](snd_pcm_ioplug_t* io)
        {
            get(io).m_numWritten = 0;
            return 0;
        };
        m_callbacks.pointer = [](snd_pcm_ioplug_t* io) { return get(io).getPlace(); };
        m_callbacks.transfer = [](snd_pcm_ioplug_t* io, const snd_pcm_channel_area_t* areas,
                                  snd_pcm_uframes_t offset, snd_pcm_uframes_t size)
        { return get(io).write(areas, offset, size); };
        m_callbacks.drain = [](snd_pcm_ioplug_t* io)
        {
            std::this_thread::sleep_until(get(io).m_start + get(io).toTime(get(io).m_numWritten));
            return 0;
        };
        m_callbacks.close = [](snd_pcm_ioplug_t* io)
        {
            delete &get(io);
            return 0;
        };
        m_plugin.version = SND_PCM_IOPLUG_VERSION;
        m_plugin.name = "A sound card of the tests";
        m_plugin.flags = SND_PCM_IOPLUG_FLAG_MONOTONIC;
        m_plugin.poll_fd = -1;
        m_plugin.callback = &m_callbacks;
        m_plugin.private_data = this;
    }

    /// @return 0, or a negative error code
    int open(snd_pcm_t** pcm, const char* name, snd_pcm_stream_t stream, int mode)
    {
        const unsigned int access[] = {SND_PCM_ACCESS_RW_INTERLEAVED};
        const unsigned int formats[] = {SND_PCM_FORMAT_FLOAT};
        const int error = ::snd_pcm_ioplug_create(&m_plugin, name, stream, mode);
        if (error < 0)
            return error;
        ::snd_pcm_ioplug_set_param_list(&m_plugin, SND_PCM_IOPLUG_HW_ACCESS, 1, access);
        ::snd_pcm_ioplug_set_param_list(&m_plugin, SND_PCM_IOPLUG_HW_FORMAT, 1, formats);
        *pcm = m_plugin.pcm;
        return 0;
    }

private:
    static SoundCard& get(snd_pcm_ioplug_t* io)
    {
        return *static_cast<SoundCard*>(io->private_data);
    }

    std::chrono::nanoseconds toTime(std::uint64_t samples) const
    {
        return std::chrono::nanoseconds(static_cast<std::int64_t>(
            static_cast<double>(samples) * 1e9 / (m_plugin.rate * m_speed)));
    }

    /// @return where in the buffer it plays; -EPIPE if it has run dry
    snd_pcm_sframes_t getPlace() const
    {
        if (m_plugin.state == SND_PCM_STATE_PREPARED)
            return 0;
        const std::chrono::duration<double> passed = SteadyClock::now() - m_start;
        const auto played = static_cast<std::uint64_t>(passed.count() * m_plugin.rate * m_speed);
        return played > m_numWritten
                   ? -EPIPE
                   : static_cast<snd_pcm_sframes_t>(played % m_plugin.buffer_size);
    }

    snd_pcm_sframes_t
    write(const snd_pcm_channel_area_t* areas, snd_pcm_uframes_t offset, snd_pcm_uframes_t size)
    {
        const std::size_t sampleBytes = m_plugin.channels * sizeof(float);
        m_file.write(
            static_cast<const char*>(areas[0].addr) + offset * sampleBytes,
            static_cast<std::streamsize>(size * sampleBytes));
        m_numWritten += size;
        return static_cast<snd_pcm_sframes_t>(size);
    }

    std::ofstream m_file;
    const double m_speed;
    snd_pcm_ioplug_callback_t m_callbacks{};
    snd_pcm_ioplug_t m_plugin{};
    SteadyClock::time_point m_start;
    std::uint64_t m_numWritten = 0; // since it was prepared
};

} // namespace

} // namespace vlx::testing

// For pcm.NAME { type vlxtest file PATH ppm NUMBER } ALSA looks for these two names:
// NOLINTBEGIN(readability-identifier-naming)

extern "C" __attribute__((visibility("default"))) int _snd_pcm_vlxtest_open(
    snd_pcm_t** pcm,
    const char* name,
    snd_config_t*,
    snd_config_t* config,
    snd_pcm_stream_t stream,
    int mode)
{
    const auto find = [&](const char* key)
    {
        snd_config_t* value = nullptr;
        return ::snd_config_search(config, key, &value) == 0 ? value : nullptr;
    };
    const char* file = nullptr;
    long ppm = 0;
    if (::snd_config_get_string(find("file"), &file) < 0 ||
        ::snd_config_get_integer(find("ppm"), &ppm) < 0)
        return -EINVAL;
    auto* const card = new vlx::testing::SoundCard(file, static_cast<double>(ppm));
    const int error = card->open(pcm, name, stream, mode);
    if (error < 0)
        delete card;
    return error;
}

extern "C" __attribute__((visibility("default"))) const char __snd_pcm_vlxtest_open_dlsym_pcm_001 =
    0; // the interface's version

// NOLINTEND(readability-identifier-naming)
