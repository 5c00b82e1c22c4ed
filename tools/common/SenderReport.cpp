#include "SenderReport.hpp"

#include <cstdio>

#include <nlohmann/json.hpp>

#include "Text.hpp"

namespace vlx::tool
{

std::string toShortText(const kit::StreamFormat& format)
{
    return std::string(audioUtils::toString(format.sampleFormat)) + " " +
           std::to_string(format.rate) + " Hz " + std::to_string(format.channels) + "ch";
}

std::string describeFormat(const kit::SenderProbe& probe)
{
    if (probe.format)
        return toShortText(*probe.format);
    if (probe.fourcc)
        return "codec \"" + kit::toFourccText(*probe.fourcc) + "\"";
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
        json["codec"] = kit::toFourccText(*probe.fourcc);
    if (probe.format)
    {
        json["sample_format"] = audioUtils::toString(probe.format->sampleFormat);
        json["sample_rate"] = probe.format->rate;
        json["channels"] = probe.format->channels;
    }
    return json;
}

void printJson(const nlohmann::ordered_json& document, int indentation)
{
    const auto replace = nlohmann::ordered_json::error_handler_t::replace;
    std::puts(document.dump(indentation, ' ', false, replace).c_str());
}

} // namespace vlx::tool
