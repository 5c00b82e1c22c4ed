#include <cerrno>
#include <chrono>
#include <exception>
#include <string>

#include <alsa/asoundlib.h>
#include <alsa/pcm_external.h>

#include <vlxkit/Discovery.hpp>
#include <vlxkit/Text.hpp>

#include "Device.hpp"

namespace vlx::alsa
{

namespace
{

constexpr std::chrono::milliseconds ProbeTime{200};

/// Looks at what is sent under the name.
///
/// @param format  receives the format of the running stream
/// @return 0, or a negative error number for a stream that cannot be read
int probe(const Settings& settings, std::optional<kit::StreamFormat>& format)
{
    const kit::SenderProbe sender = kit::probeSender(settings.name, ProbeTime);
    format = sender.format;
    if (!sender.fourcc)
        return 0; // waits for its sender
    std::string reason;
    int error = 0;
    if (!format)
    {
        reason = "carries the codec " + kit::quote(kit::toFourccText(*sender.fourcc)) + ", not PCM";
        error = -EINVAL;
    }
    else if (!sender.mayJoin)
    {
        reason = "may not be joined by this user; its sender can permit it by --socket-mode";
        error = -EACCES;
    }
    if (error < 0)
        SNDERR("vlx: the stream %s %s", kit::quote(settings.name).c_str(), reason.c_str());
    return error;
}

int open(snd_pcm_t** pcm, const char* name, snd_config_t* config, snd_pcm_stream_t stream, int mode)
{
    const std::optional<Settings> settings = readSettings(config);
    if (!settings)
        return -EINVAL;
    if (stream == SND_PCM_STREAM_CAPTURE)
    {
        std::optional<kit::StreamFormat> format;
        const int error = probe(*settings, format);
        return error < 0 ? error : Device::open(makeCapture(*settings), pcm, name, mode, format);
    }
    if (kit::isNameTaken(settings->name))
    {
        SNDERR("vlx: the name %s is taken by another sender", kit::quote(settings->name).c_str());
        return -EBUSY;
    }
    return Device::open(makePlayback(*settings), pcm, name, mode, std::nullopt);
}

} // namespace

} // namespace vlx::alsa

// For "type vlx" ALSA looks for these two names:
// NOLINTBEGIN(readability-identifier-naming,bugprone-reserved-identifier)

extern "C" VLX_API int _snd_pcm_vlx_open(
    snd_pcm_t** pcm,
    const char* name,
    snd_config_t* /*root*/,
    snd_config_t* config,
    snd_pcm_stream_t stream,
    int mode)
{
    try
    {
        return vlx::alsa::open(pcm, name, config, stream, mode);
    }
    catch (const std::exception& exception)
    {
        SNDERR("vlx: %s", exception.what());
        return -ENOMEM;
    }
}

extern "C" VLX_API const char __snd_pcm_vlx_open_dlsym_pcm_001 = 0; // the interface's version

// NOLINTEND(readability-identifier-naming,bugprone-reserved-identifier)
