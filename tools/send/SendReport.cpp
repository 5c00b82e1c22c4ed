#include "SendReport.hpp"

#include <cmath>

#include "common/ReportFile.hpp"
#include "common/SenderReport.hpp"

namespace vlx::tool
{

void SendReport::beginRun(TimeValue timestamp, const kit::StreamFormat& runFormat, double ppm)
{
    m_run = {timestamp, samples, runFormat, ppm};
    runs.push_back({{"sample", samples}, {"timestamp", timestamp}});
    if (ppm != 0)
        runs.back()["speed_ppm"] = ppm;
    if (runFormat != format)
        addFormat(runs.back(), runFormat);
    write();
}

bool SendReport::isInRun(TimeValue timestamp) const
{
    constexpr double Tolerance = 500'000;
    const auto nominal = static_cast<double>(m_run.format.toNanoseconds(samples - m_run.sample));
    const double expected = nominal / (1 + m_run.ppm * 1e-6);
    return std::abs(static_cast<double>(timestamp - m_run.timestamp) - expected) <= Tolerance;
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
         {"speed_ppm", speedPpm},
         {"runs", runs}});
    writeJson(path, json);
}

} // namespace vlx::tool
