#include "SendReport.hpp"

#include <nlohmann/json.hpp>

#include "common/ReportFile.hpp"
#include "common/SenderReport.hpp"

namespace vlx::tool
{

void SendReport::write(const std::string& path, bool isLast) const
{
    // To standard output only once, in the end.
    if (path.empty() || (path == "-" && !isLast))
        return;

    nlohmann::ordered_json json = {{"stream", name}, {"input", input}};
    addFormat(json, format);
    json["clock"] = clock;
    json["finished"] = finished;
    json["frames"] = frames;
    json["samples"] = samples;
    json["runs"] = nlohmann::ordered_json::array();
    for (const SentRun& run : runs)
    {
        nlohmann::ordered_json entry = {{"sample", run.sample}, {"timestamp", run.timestamp}};
        if (run.format != format)
            addFormat(entry, run.format);
        json["runs"].push_back(entry);
    }
    writeJson(path, json);
}

} // namespace vlx::tool
