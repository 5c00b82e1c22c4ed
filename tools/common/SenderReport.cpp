#include "SenderReport.hpp"

#include <nlohmann/json.hpp>

#include <vlxkit/Media.hpp>
#include <vlxkit/Users.hpp>

#include "Text.hpp"

namespace vlx::tool
{

std::string toShortText(const kit::StreamFormat& format)
{
    return std::string(audioUtils::toString(format.sampleFormat)) + " " +
           std::to_string(format.rate) + " Hz " + std::to_string(format.channels) + "ch";
}

std::string toShortText(const kit::CodecFormat& codec)
{
    const auto caps = kit::getMediaCaps(codec);
    return caps ? kit::shortenMediaCaps(*caps) : "codec " + quote(kit::toFourccText(codec.fourcc));
}

std::string describeFormat(const kit::SenderProbe& probe)
{
    if (probe.format)
        return toShortText(*probe.format);
    if (probe.fourcc)
        return toShortText(kit::CodecFormat{*probe.fourcc, probe.codecHeader});
    return probe.initialInfo ? "no sequence yet" : "no answer";
}

std::string describeClock(const kit::SenderProbe& probe)
{
    if (!probe.initialInfo)
        return {};
    std::string text = toString(probe.initialInfo->timeSyncProtocol);
    if (probe.initialInfo->timeSyncPort != 0)
        text += " " + toPrintable(probe.initialInfo->timeSyncIPAddress) + ":" +
                std::to_string(probe.initialInfo->timeSyncPort);
    return text;
}

const char* toClockName(Receiver::StreamClockType clock)
{
    switch (clock)
    {
    case Receiver::StreamClockType::NoClock:
        return "none";
    case Receiver::StreamClockType::MonotonicSystemClock:
        return toString(TimeSyncProtocol::MonotonicSystemClock);
    case Receiver::StreamClockType::SyncedNetClock:
        return toString(TimeSyncProtocol::GstNetClock);
    case Receiver::StreamClockType::Undetermined:
        break;
    }
    return "undetermined";
}

void addFormat(nlohmann::ordered_json& json, const kit::StreamFormat& format)
{
    json["sample_format"] = audioUtils::toString(format.sampleFormat);
    json["sample_rate"] = format.rate;
    json["channels"] = format.channels;
}

void addFormat(nlohmann::ordered_json& json, const kit::CodecFormat& codec)
{
    json["codec"] = kit::toFourccText(codec.fourcc);
    if (const auto caps = kit::getMediaCaps(codec))
        json["caps"] = *caps;
}

void addAges(nlohmann::ordered_json& json, const kit::AgeHistogram& ages)
{
    json["age_p50_ns"] = toJson(ages.getPercentile(0.5));
    json["age_p99_ns"] = toJson(ages.getPercentile(0.99));
    json["age_max_ns"] = toJson(ages.getMax());
}

nlohmann::ordered_json toJson(const std::optional<std::int64_t>& number)
{
    return number ? nlohmann::ordered_json(*number) : nlohmann::ordered_json();
}

nlohmann::ordered_json toJson(const kit::SenderProbe& probe)
{
    nlohmann::ordered_json json = nlohmann::ordered_json::object();
    if (probe.initialInfo)
    {
        json["version"] = probe.initialInfo->version;
        json["protocol"] = toString(probe.initialInfo->nanomsgProtocol);
        json["clock"] = toString(probe.initialInfo->timeSyncProtocol);
        json["clock_address"] = probe.initialInfo->timeSyncIPAddress;
        json["clock_port"] = probe.initialInfo->timeSyncPort;
        json["uri"] = probe.initialInfo->nanomsgURI;
        json["may_join"] = probe.mayJoin;
    }
    if (probe.sequenceNr)
        json["sequence"] = *probe.sequenceNr;
    if (probe.fourcc)
        addFormat(json, kit::CodecFormat{*probe.fourcc, probe.codecHeader});
    if (probe.format)
        addFormat(json, *probe.format);
    if (probe.ring)
        json["shared_memory"] = probe.ring->getPath();
    return json;
}

nlohmann::ordered_json toJson(const FoundSender& sender)
{
    nlohmann::ordered_json json = {
        {"name", sender.entry.name},
        {"process", sender.entry.process},
        {"program", sender.entry.command},
        {"user", sender.entry.user},
        {"user_name", kit::getUserName(sender.entry.user)},
        {"receivers", sender.entry.receivers}};
    json.update(toJson(sender.probe));
    return json;
}

} // namespace vlx::tool
