#include <cerrno>
#include <chrono>
#include <exception>
#include <string>
#include <vector>

#include <alsa/asoundlib.h>
#include <alsa/pcm_external.h>

#include <vlxkit/Discovery.hpp>
#include <vlxkit/Logging.hpp>
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
        return 0; // the device waits for the sender
    std::string reason;
    int error = 0;
    if (!format)
    {
        reason = "carries the codec " + kit::quote(kit::toFourccText(*sender.fourcc)) + ", not PCM";
        error = -EINVAL;
    }
    else if (format->channels > MaxChannels)
    {
        reason = "has " + std::to_string(format->channels) + " channels, more than " +
                 std::to_string(MaxChannels);
        error = -EINVAL;
    }
    else if (!sender.mayJoin)
    {
        reason = "does not admit this user; see its sender's --socket-mode or SOCKET_MODE";
        error = -EACCES;
    }
    if (error < 0)
        SNDERR("vlx: the stream %s %s", kit::quote(settings.name).c_str(), reason.c_str());
    return error;
}

int open(snd_pcm_t** pcm, const char* name, snd_config_t* config, snd_pcm_stream_t stream, int mode)
{
    kit::endLogThreads();
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

/// Describes the device. In a list, where no name is given, adds the running streams.
int describe(snd_config_t** result, snd_config_t* source)
{
    kit::endLogThreads();
    snd_config_t* node = nullptr;
    const char* name = nullptr;
    std::string text = "Vellox stream: vlx:NAME";
    std::vector<std::string> streams;
    if (::snd_config_search(source, "name", &node) < 0 ||
        ::snd_config_get_string(node, &name) < 0 || *name == '\0')
    {
        for (const kit::SenderEntry& sender : kit::listSenders().senders)
        {
            // Other names contain characters that ALSA interprets or that are unprintable.
            if (sender.name.find_first_of(",='\"|\\") == std::string::npos &&
                sender.name == kit::toPrintable(sender.name))
                streams.push_back(sender.name);
        }
    }
    const std::vector<kit::SenderProbe> probes = kit::probeSenders(streams, ProbeTime);
    for (std::size_t i = 0; i < streams.size(); ++i)
    {
        if (probes[i].format)
            text += "\nvlx:" + streams[i] + " (" + kit::toText(*probes[i].format) + ")";
    }
    return ::snd_config_imake_string(result, "description", text.c_str());
}

} // namespace

} // namespace vlx::alsa

// For "type vlx" ALSA looks for these names:
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

// For "@func vlx_describe" ALSA looks for this name:
extern "C" VLX_API int snd_func_vlx_describe(
    snd_config_t** result,
    snd_config_t* /*root*/,
    snd_config_t* source,
    snd_config_t* /*data*/)
{
    try
    {
        return vlx::alsa::describe(result, source);
    }
    catch (const std::exception&)
    {
        return -ENOMEM;
    }
}

// Versions of the interfaces.
extern "C" VLX_API const char __snd_pcm_vlx_open_dlsym_pcm_001 = 0;
extern "C" VLX_API const char _snd_func_vlx_describe_dlsym_config_evaluate_001 = 0;

// NOLINTEND(readability-identifier-naming,bugprone-reserved-identifier)
