#include "support/Targets.hpp"

#include <algorithm>
#include <cmath>

#include "support/Catalogue.hpp"
#include "support/Statistics.hpp"
#include "support/Summaries.hpp"

namespace vlx::bench
{
namespace
{

constexpr unsigned TargetBytes = 1920;
constexpr unsigned TargetReceivers = 32;

enum class Limit
{
    AtMost,
    Below,
    AtLeast,
};

struct Target
{
    const char* subject;
    const char* figure;
    Limit kind;
    double limit;
    double (*measure)(const RunData& data);
};

RecordSet ofPath(const RecordSet& records, const char* path)
{
    return records.where("bytes", TargetBytes).where("path", path);
}

double ageRatio(const RunData& data, const char* base, const char* key)
{
    return medianRatio(ofPath(data.age, OursId), ofPath(data.age, base), key);
}

double overloadRatio(const RunData& data, const char* base, const char* key)
{
    return medianRatio(ofPath(data.overload, OursId), ofPath(data.overload, base), key);
}

double worstOf(const RecordSet& records, const char* key)
{
    const auto values = records.valuesOf(key);
    return values.empty() ? std::nan("") : *std::ranges::max_element(values);
}

// The worst round counts: no loss means none at all.
double worstLossUpToTarget(const RunData& data)
{
    RecordSet few;
    const RecordSet ours = data.fanout.where("path", OursId);
    for (const Record& record : ours.getAll())
    {
        if (getNumber(record, "receivers") <= TargetReceivers)
            few.add(record);
    }
    return worstOf(few, "lost_pct");
}

double costOfManyToOne(const RunData& data)
{
    const RecordSet ours = data.fanout.where("path", OursId).where("objects", 1);
    return medianRatio(
        ours.where("receivers", TargetReceivers), ours.where("receivers", 1),
        "sender_cpu_per_receiver_us");
}

JoinFigures joinsWithBell(const RunData& data, const char* scenario, const char* key)
{
    return summariseJoins(
        data.join.where("case", scenario).where("path", OursId).where("bell", "yes"), key);
}

const std::vector<Target>& allTargets()
{
    using D = const RunData&;
    static const std::vector<Target> Targets = {
        {"age, 1,920 bytes", "p50 of nanomsg, our options", Limit::AtMost, 1.10,
         [](D d) { return ageRatio(d, RawNanomsgId, "p50_us"); }},
        {"age, 1,920 bytes", "p99 of nanomsg, our options", Limit::AtMost, 1.25,
         [](D d) { return ageRatio(d, RawNanomsgId, "p99_us"); }},
        {"age, 1,920 bytes", "p50 of ZeroMQ", Limit::AtMost, 0.80,
         [](D d) { return ageRatio(d, ZmqId, "p50_us"); }},
        {"age, 1,920 bytes", "p50 of nng", Limit::AtMost, 0.80,
         [](D d) { return ageRatio(d, NngId, "p50_us"); }},
        {"overload, 1,920 bytes", "p99 of nanomsg, our options", Limit::AtMost, 1.25,
         [](D d) { return overloadRatio(d, RawNanomsgId, "p99_us"); }},
        {"overload, 1,920 bytes", "p99 of ZeroMQ", Limit::AtMost, 0.05,
         [](D d) { return overloadRatio(d, ZmqId, "p99_us"); }},
        {"overload, 1,920 bytes", "delivered rate of nanomsg, our options", Limit::AtLeast, 0.85,
         [](D d) { return overloadRatio(d, RawNanomsgId, "delivered_per_s"); }},
        {"CPU per frame, both sides", "of nanomsg, our options, 1,920 bytes", Limit::AtMost, 1.15,
         [](D d) { return ageRatio(d, RawNanomsgId, "cpu_us"); }},
        {"heap allocations per frame", "sender, worst round", Limit::AtMost, 0,
         [](D d) { return worstOf(d.age.where("path", OursId), "sender_allocations"); }},
        {"heap allocations per frame", "receiver, worst round", Limit::AtMost, 1,
         [](D d) { return worstOf(d.age.where("path", OursId), "receiver_allocations"); }},
        {"fan-out", "% lost, up to 32 receivers, worst round", Limit::AtMost, 0,
         worstLossUpToTarget},
        {"fan-out", "sender CPU per receiver at 32 of that at 1", Limit::AtMost, 1.2,
         costOfManyToOne},
        {"join, bell, idle", "p50 ms", Limit::Below, 3,
         [](D d) { return joinsWithBell(d, "join", "open_ms").p50Ms; }},
        {"join, bell, idle", "p99 ms", Limit::Below, 20,
         [](D d) { return joinsWithBell(d, "join", "open_ms").p99Ms; }},
        {"join, bell, busy core", "p50 ms", Limit::Below, 3,
         [](D d) { return joinsWithBell(d, "join, busy core", "open_ms").p50Ms; }},
        {"join, bell, busy core", "p99 ms", Limit::Below, 20,
         [](D d) { return joinsWithBell(d, "join, busy core", "open_ms").p99Ms; }},
        {"rejoin, bell, gap 0", "p50 ms after the kill", Limit::AtMost, 60,
         [](D d) { return joinsWithBell(d, "rejoin, gap 0", "kill_ms").p50Ms; }},
        {"rejoin, bell, gap 100 ms", "p50 ms after the call", Limit::Below, 10,
         [](D d) { return joinsWithBell(d, "rejoin, gap 100 ms", "open_ms").p50Ms; }},
        {"rejoin, bell, gap 1000 ms", "p50 ms after the call", Limit::Below, 10,
         [](D d) { return joinsWithBell(d, "rejoin, gap 1000 ms", "open_ms").p50Ms; }},
    };
    return Targets;
}

std::string describeLimit(const Target& target)
{
    std::string limit = formatNumber(target.limit);
    switch (target.kind)
    {
    case Limit::AtMost:
        return "at most " + limit;
    case Limit::Below:
        return "under " + limit;
    case Limit::AtLeast:
        return "at least " + limit;
    }
    return limit;
}

bool isMet(const Target& target, double value)
{
    switch (target.kind)
    {
    case Limit::AtMost:
        return value <= target.limit;
    case Limit::Below:
        return value < target.limit;
    case Limit::AtLeast:
        return value >= target.limit;
    }
    return false;
}

} // namespace

Table makeTargetTable(const RunData& data)
{
    Table table({"<target", "<figure", "<limit", "measured", "<verdict"});
    for (const Target& target : allTargets())
    {
        const double value = target.measure(data);
        const char* verdict = std::isnan(value)      ? "not measured"
                              : isMet(target, value) ? "met"
                                                     : "MISSED";
        table.addRow(
            {target.subject, target.figure, describeLimit(target), formatNumber(value), verdict});
    }
    return table;
}

} // namespace vlx::bench
