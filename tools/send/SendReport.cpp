#include "SendReport.hpp"

#include "common/ReportFile.hpp"
#include "common/SenderReport.hpp"

namespace vlx::tool
{

void SendReport::beginRun(TimeValue timestamp, const kit::StreamFormat& runFormat)
{
    runs.push_back({{"sample", samples}, {"timestamp", timestamp}});
    if (runFormat != format)
        addFormat(runs.back(), runFormat);
    write();
}

void SendReport::write(bool isLast) const
{
    if (path.empty() || (!isLast && !isReplaced(path)))
        return;
    nlohmann::ordered_json json = {{"stream", name}, {"input", input}};
    addFormat(json, format);
    json.update(
        {{"clock", clock},
         {"finished", finished},
         {"frames", frames},
         {"samples", samples},
         {"runs", runs}});
    writeJson(path, json);
}

} // namespace vlx::tool
