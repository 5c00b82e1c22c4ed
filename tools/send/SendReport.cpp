#include "SendReport.hpp"

#include <cmath>

#include <CLI/StringTools.hpp>

#include "SendOptions.hpp"
#include "common/ReportFile.hpp"
#include "common/SenderReport.hpp"

namespace vlx::tool
{

SendReport::SendReport(
    const SendOptions& options,
    const kit::StreamFormat& format,
    TimeSyncProtocol clock)
    : m_path(options.report),
      m_firstFormat(format),
      m_stream({{"stream", options.name}, {"input", CLI::detail::join(options.inputs, " ")}})
{
    addFormat(m_stream, format);
    m_stream["clock"] = toString(clock);
}

void SendReport::beginRun(TimeValue timestamp, const kit::StreamFormat& format, double ppm)
{
    m_run = {timestamp, samples, format, ppm};
    m_runs.push_back({{"sample", samples}, {"timestamp", timestamp}});
    if (ppm != 0)
        m_runs.back()["speed_ppm"] = ppm;
    if (format != m_firstFormat)
        addFormat(m_runs.back(), format);
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
    if (m_path.empty() || (!isLast && !isReplaced(m_path)))
        return;
    nlohmann::ordered_json json = m_stream;
    json.update(
        {{"finished", finished},
         {"frames", frames},
         {"samples", samples},
         {"speed_ppm", speedPpm},
         {"runs", m_runs}});
    writeJson(m_path, json);
}

} // namespace vlx::tool
