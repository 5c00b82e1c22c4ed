// A sound card for ALSA: it plays into a file, by a clock of its own that may run fast or slow, and
// reports a queue that it plays empty, as hardware does.

#include <chrono>
#include <cstdint>
#include <fstream>
#include <memory>
#include <thread>

#include <alsa/asoundlib.h>
#include <alsa/pcm_external.h>

namespace vlx::testing
{

namespace
{

using SteadyClock = std::chrono::steady_clock;

/// An open card, as ALSA hands it to the callbacks.
struct SoundCard : snd_pcm_ioplug_t
{
    std::ofstream file;
    double speed = 1; // of its clock
    SteadyClock::time_point begin;
    std::uint64_t numWritten = 0; // since it was prepared
};

SoundCard& get(snd_pcm_ioplug_t* io)
{
    return *static_cast<SoundCard*>(io);
}

int start(snd_pcm_ioplug_t* io)
{
    get(io).begin = SteadyClock::now();
    return 0;
}

int stop(snd_pcm_ioplug_t* /*io*/)
{
    return 0;
}

int prepare(snd_pcm_ioplug_t* io)
{
    get(io).numWritten = 0;
    return 0;
}

/// @return where in the buffer it plays; -EPIPE if it has run dry
snd_pcm_sframes_t getPlace(snd_pcm_ioplug_t* io)
{
    if (io->state == SND_PCM_STATE_PREPARED)
        return 0;
    const std::chrono::duration<double> passed = SteadyClock::now() - get(io).begin;
    const auto played = static_cast<std::uint64_t>(passed.count() * io->rate * get(io).speed);
    return played > get(io).numWritten ? -EPIPE
                                       : static_cast<snd_pcm_sframes_t>(played % io->buffer_size);
}

snd_pcm_sframes_t write(
    snd_pcm_ioplug_t* io,
    const snd_pcm_channel_area_t* areas,
    snd_pcm_uframes_t offset,
    snd_pcm_uframes_t size)
{
    const std::size_t sampleBytes = io->channels * sizeof(float);
    get(io).file.write(
        static_cast<const char*>(areas[0].addr) + offset * sampleBytes,
        static_cast<std::streamsize>(size * sampleBytes));
    get(io).numWritten += size;
    return static_cast<snd_pcm_sframes_t>(size);
}

int drain(snd_pcm_ioplug_t* io)
{
    const std::chrono::duration<double> length(
        static_cast<double>(get(io).numWritten) / (io->rate * get(io).speed));
    std::this_thread::sleep_until(get(io).begin + length);
    return 0;
}

int close(snd_pcm_ioplug_t* io)
{
    delete &get(io);
    return 0;
}

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
    using namespace vlx::testing;
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
    static snd_pcm_ioplug_callback_t callbacks{};
    callbacks.start = start;
    callbacks.stop = stop;
    callbacks.pointer = getPlace;
    callbacks.transfer = write;
    callbacks.close = close;
    callbacks.prepare = prepare;
    callbacks.drain = drain;
    auto card = std::make_unique<SoundCard>();
    card->file.open(file, std::ios::binary);
    card->speed = 1 + static_cast<double>(ppm) * 1e-6;
    card->version = SND_PCM_IOPLUG_VERSION;
    card->name = "A sound card of the tests";
    card->flags = SND_PCM_IOPLUG_FLAG_MONOTONIC;
    card->poll_fd = -1;
    card->callback = &callbacks;
    const int error = ::snd_pcm_ioplug_create(card.get(), name, stream, mode);
    if (error < 0)
        return error;
    const unsigned int access = SND_PCM_ACCESS_RW_INTERLEAVED;
    const unsigned int format = SND_PCM_FORMAT_FLOAT;
    ::snd_pcm_ioplug_set_param_list(card.get(), SND_PCM_IOPLUG_HW_ACCESS, 1, &access);
    ::snd_pcm_ioplug_set_param_list(card.get(), SND_PCM_IOPLUG_HW_FORMAT, 1, &format);
    *pcm = card.release()->pcm;
    return 0;
}

extern "C" __attribute__((visibility("default"))) const char __snd_pcm_vlxtest_open_dlsym_pcm_001 =
    0; // the interface's version

// NOLINTEND(readability-identifier-naming)
