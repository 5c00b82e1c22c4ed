#include "SendReport.hpp"

#include <nlohmann/json.hpp>

#include "common/ReportFile.hpp"

namespace vlx::tool
{

std::string SendReport::write(const std::string& path) const
{
    if (path.empty())
        return {};

    nlohmann::ordered_json runList = nlohmann::ordered_json::array();
    for (const SentRun& run : runs)
        runList.push_back({{"sample", run.sample}, {"timestamp", run.timestamp}});
    return writeReportFile(
        path, {{"stream", name},
               {"input", input},
               {"sample_format", audioUtils::toString(format.sampleFormat)},
               {"sample_rate", format.rate},
               {"channels", format.channels},
               {"clock", clock},
               {"finished", finished},
               {"frames", frames},
               {"samples", samples},
               {"runs", runList}});
}

} // namespace vlx::tool
