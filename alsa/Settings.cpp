#include "Settings.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <initializer_list>
#include <string_view>
#include <type_traits>
#include <utility>

#include <vlxkit/Text.hpp>
#include <vlxkit/Users.hpp>

namespace vlx::alsa
{

namespace
{

// In the order of PcmFormat.
constexpr std::array<snd_pcm_format_t, audioUtils::NumPcmFormats> Formats = {
    SND_PCM_FORMAT_S8,       SND_PCM_FORMAT_U8,         SND_PCM_FORMAT_S16_LE,
    SND_PCM_FORMAT_S16_BE,   SND_PCM_FORMAT_S24_3LE,    SND_PCM_FORMAT_S24_3BE,
    SND_PCM_FORMAT_S32_LE,   SND_PCM_FORMAT_S32_BE,     SND_PCM_FORMAT_FLOAT_LE,
    SND_PCM_FORMAT_FLOAT_BE, SND_PCM_FORMAT_FLOAT64_LE, SND_PCM_FORMAT_FLOAT64_BE};

/// @return whether the key is one of the choices
template <typename T, typename Key>
bool choose(
    const Key& key,
    std::initializer_list<std::pair<std::type_identity_t<Key>, T>> choices,
    T& result)
{
    const auto* const choice = std::find_if(
        choices.begin(), choices.end(), [&](const auto& entry) { return entry.first == key; });
    if (choice == choices.end())
        return false;
    result = choice->second;
    return true;
}

/// Reads a time such as "5", "2.5s" or "500ms"; empty: zero.
bool readTime(std::string_view text, std::chrono::nanoseconds& result)
{
    constexpr double MaxSeconds = 1e9;
    if (text.empty())
        return true;
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    double nsPerUnit = 0;
    const std::string_view unit(end, static_cast<std::size_t>(text.data() + text.size() - end));
    if (error != std::errc() ||
        !choose<double>(unit, {{"", 1e9}, {"s", 1e9}, {"ms", 1e6}}, nsPerUnit))
        return false;
    if (!(value > 0) || value > MaxSeconds)
        return false;
    result = std::chrono::nanoseconds(static_cast<std::int64_t>(value * nsPerUnit));
    return true;
}

bool readPort(std::string_view text, std::uint16_t& result)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), result);
    return error == std::errc() && end == text.data() + text.size();
}

/// @return whether the value is valid for the parameter
bool readParameter(std::string_view key, std::string_view value, Settings& settings)
{
    using kit::RealTimeUse;
    using kit::SocketMode;
    if (key == "name")
        settings.name = value;
    else if (key == "socket_mode")
        return choose<SocketMode>(
            value,
            {{"owner", SocketMode::Owner}, {"group", SocketMode::Group}, {"all", SocketMode::All}},
            settings.socketMode);
    else if (key == "sender_user" && !value.empty())
        return (settings.senderUser = kit::findUser(std::string(value))).has_value();
    else if (key == "realtime")
        return choose<RealTimeUse>(
            value,
            {{"off", RealTimeUse::Off},
             {"try", RealTimeUse::Try},
             {"require", RealTimeUse::Require}},
            settings.realTime.use);
    else if (key == "clock")
        return choose<TimeSyncProtocol>(
            value,
            {{"sysclock", TimeSyncProtocol::MonotonicSystemClock},
             {"net", TimeSyncProtocol::GstNetClock},
             {"none", TimeSyncProtocol::Unknown}},
            settings.clock);
    else if (key == "clock_address")
        settings.clockAddress = value;
    else if (key == "clock_port")
        return readPort(value, settings.clockPort);
    else if (key == "timeout")
        return readTime(value, settings.timeout);
    else if (key == "on_gap")
        return choose<bool>(value, {{"silence", false}, {"xrun", true}}, settings.reportsGaps);
    else
        return key == "sender_user" || key == "type" || key == "comment" || key == "hint";
    return true;
}

} // namespace

std::optional<Settings> readSettings(snd_config_t* section)
{
    Settings settings;
    snd_config_iterator_t entry = nullptr;
    snd_config_iterator_t next = nullptr;
    snd_config_for_each(entry, next, section)
    {
        snd_config_t* const node = ::snd_config_iterator_entry(entry);
        const char* key = nullptr;
        char* text = nullptr;
        if (::snd_config_get_id(node, &key) < 0)
            continue;
        std::string value;
        if (::snd_config_get_ascii(node, &text) == 0 && text != nullptr) // a number, too
        {
            value = text;
            std::free(text);
        }
        if (!readParameter(key, value, settings))
        {
            SNDERR("vlx: invalid parameter %s %s", key, kit::quote(value).c_str());
            return std::nullopt;
        }
    }
    const bool isServed = settings.clock == TimeSyncProtocol::GstNetClock;
    const char* problem = nullptr;
    if (settings.name.empty())
        problem = "the stream's name is missing; open the device as vlx:NAME";
    else if (isServed == (settings.clockPort == 0))
        problem = "set both CLOCK=net and CLOCK_PORT, the port of \"vlx clock serve\", or neither";
    if (problem == nullptr)
        return settings;
    SNDERR("vlx: %s", problem);
    return std::nullopt;
}

snd_pcm_format_t toAlsaFormat(audioUtils::PcmFormat format)
{
    return Formats.at(static_cast<std::size_t>(format));
}

std::optional<audioUtils::PcmFormat> toPcmFormat(snd_pcm_format_t format)
{
    const auto* const found = std::find(Formats.begin(), Formats.end(), format);
    if (found == Formats.end())
        return std::nullopt;
    return static_cast<audioUtils::PcmFormat>(found - Formats.begin());
}

int toErrorNumber(kit::ErrorCode code)
{
    using kit::ErrorCode;
    int error = EIO;
    choose<int>(
        code,
        {{ErrorCode::NameTaken, EBUSY},
         {ErrorCode::NameInvalid, EINVAL},
         {ErrorCode::InvalidArgument, EINVAL},
         {ErrorCode::NoDirectory, ENOENT},
         {ErrorCode::DirectoryNotTrusted, EACCES},
         {ErrorCode::NotPermitted, EACCES},
         {ErrorCode::OutOfResources, ENOMEM}},
        error);
    return -error;
}

} // namespace vlx::alsa
