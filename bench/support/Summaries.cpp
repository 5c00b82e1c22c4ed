#include "support/Summaries.hpp"

#include <algorithm>
#include <limits>

#include "support/Catalogue.hpp"
#include "support/Statistics.hpp"

namespace vlx::bench
{
namespace
{

std::string toCell(const nlohmann::json& value)
{
    return value.is_string() ? value.get<std::string>() : value.dump();
}

std::vector<Path> pathsIn(const RecordSet& records)
{
    const auto ids = records.distinct("path");
    std::vector<Path> paths;
    for (const Path& path : allPaths())
    {
        if (std::ranges::find(ids, Record(path.id)) != ids.end())
            paths.push_back(path);
    }
    return paths;
}

struct Column
{
    const char* heading;
    const char* key;
    bool isRatio = false; // to raw nanomsg with our options, in the same round
};

// A row for each path in each group of records.
Table makeRoundTable(
    const RecordSet& records,
    const std::string& groupKey,
    const std::vector<Column>& columns)
{
    std::vector<std::string> headings = {groupKey, "<path"};
    for (const Column& column : columns)
        headings.push_back(column.heading);
    Table table(headings);
    for (const auto& group : records.sortedDistinct(groupKey))
    {
        const RecordSet members = records.where(groupKey, group);
        const RecordSet raw = members.where("path", RawNanomsgId);
        for (const Path& path : pathsIn(members))
        {
            const RecordSet rows = members.where("path", path.id);
            std::vector<std::string> cells = {toCell(group), path.label};
            for (const auto& [heading, key, isRatio] : columns)
            {
                cells.push_back(
                    isRatio ? formatRatio(medianRatio(rows, raw, key))
                            : formatNumber(rows.medianOf(key)));
            }
            table.addRow(cells);
        }
    }
    return table;
}

} // namespace

std::string labelOf(const nlohmann::json& pathId)
{
    const Path* path = findPath(pathId.get<std::string>());
    return path ? path->label : pathId.get<std::string>();
}

Table makeAgeTable(const RecordSet& records)
{
    return makeRoundTable(
        records, "bytes",
        {{"p50 us", "p50_us"},
         {"p90 us", "p90_us"},
         {"p99 us", "p99_us"},
         {"p99.9 us", "p999_us"},
         {"max us", "max_us"},
         {"lost %", "lost_pct"},
         {"sender us/frame", "sender_cpu_us"},
         {"receiver us/frame", "receiver_cpu_us"},
         {"p50 vs raw", "p50_us", true},
         {"p99 vs raw", "p99_us", true},
         {"cpu vs raw", "cpu_us", true}});
}

Table makeOverloadTable(const RecordSet& records)
{
    return makeRoundTable(
        records, "bytes",
        {{"offered/s", "offered_per_s"},
         {"delivered/s", "delivered_per_s"},
         {"lost %", "lost_pct"},
         {"p50 us", "p50_us"},
         {"p99 us", "p99_us"},
         {"p99.9 us", "p999_us"},
         {"cpu us/delivered", "delivered_cpu_us"},
         {"delivered vs raw", "delivered_per_s", true},
         {"p99 vs raw", "p99_us", true},
         {"cpu vs raw", "delivered_cpu_us", true}});
}

Table makeFanoutTable(const RecordSet& records)
{
    return makeRoundTable(
        records.where("objects", 1), "receivers",
        {{"lost %", "lost_pct"},
         {"sender us/frame", "sender_cpu_us"},
         {"sender us/frame/receiver", "sender_cpu_per_receiver_us"},
         {"receiver us/frame", "receiver_cpu_us"},
         {"p50 us", "p50_us"},
         {"p99 us", "p99_us"},
         {"worst p99 us", "worst_p99_us"},
         {"PSS KiB/receiver", "pss_kib"},
         {"p99 vs raw", "p99_us", true},
         {"sender vs raw", "sender_cpu_us", true}});
}

Table makeMemoryTable(const RecordSet& records)
{
    Table table({"<path", "1 object, PSS KiB", "17 objects, PSS KiB", "PSS KiB/object"});
    const RecordSet single = records.where("receivers", 1);
    for (const Path& path : pathsIn(single.where("objects", ManyObjects)))
    {
        const RecordSet rows = single.where("path", path.id);
        const double one = rows.where("objects", 1).medianOf("pss_kib");
        const double many = rows.where("objects", ManyObjects).medianOf("pss_kib");
        table.addRow(
            {path.label, formatNumber(one), formatNumber(many),
             formatNumber((many - one) / (ManyObjects - 1))});
    }
    return table;
}

JoinFigures summariseJoins(const RecordSet& records, const std::string& key)
{
    std::vector<double> values = records.valuesOf(key);
    const auto late = static_cast<double>(
        std::ranges::count_if(values, [](double value) { return value > RetryThresholdMs; }));
    const std::size_t never = records.where("never", true).getCount();
    values.insert(values.end(), never, std::numeric_limits<double>::infinity());
    std::ranges::sort(values);

    JoinFigures figures;
    figures.count = static_cast<double>(values.size());
    figures.p50Ms = percentile(values, 0.50);
    figures.p90Ms = percentile(values, 0.90);
    figures.p99Ms = percentile(values, 0.99);
    figures.maxMs = percentile(values, 1.0);
    figures.retryPct = 100 * late / figures.count;
    figures.neverPct = 100 * static_cast<double>(never) / figures.count;
    return figures;
}

Table makeJoinTable(const RecordSet& records)
{
    Table table(
        {"<case", "<path", "<bell", "n", "<from", "p50 ms", "p90 ms", "p99 ms", "max ms",
         "> 100 ms %", "never %"});
    for (const auto& scenario : records.distinct("case"))
    {
        const RecordSet members = records.where("case", scenario);
        for (const auto& row : members.distinct("row"))
        {
            const RecordSet rows = members.where("row", row);
            const Record& first = rows.getAll().front();
            for (const auto& [key, text] : {std::pair("kill_ms", "kill"), {"open_ms", "open"}})
            {
                if (rows.valuesOf(key).empty())
                    continue;
                const JoinFigures figures = summariseJoins(rows, key);
                table.addRow(
                    {toCell(scenario), labelOf(first["path"]), toCell(first["bell"]),
                     formatNumber(figures.count), text, formatNumber(figures.p50Ms),
                     formatNumber(figures.p90Ms), formatNumber(figures.p99Ms),
                     formatNumber(figures.maxMs), formatNumber(figures.retryPct),
                     formatNumber(figures.neverPct)});
            }
        }
    }
    return table;
}

Table makeMicroTable(const RecordSet& records)
{
    Table table({"bytes", "<operation", "ns", "MB/s", "allocations", "MB/s vs memcpy"});
    for (const auto& bytes : records.sortedDistinct("bytes"))
    {
        const RecordSet sized = records.where("bytes", bytes);
        const double copy = sized.where("operation", "memcpy").medianOf("bytes_per_s");
        for (const auto& operation : sized.sortedDistinct("operation"))
        {
            const RecordSet rows = sized.where("operation", operation);
            const double rate = rows.medianOf("bytes_per_s");
            table.addRow(
                {toCell(bytes), toCell(operation), formatNumber(rows.medianOf("ns")),
                 formatNumber(rate / 1e6), formatNumber(rows.medianOf("allocations")),
                 formatRatio(rate / copy)});
        }
    }
    return table;
}

} // namespace vlx::bench
