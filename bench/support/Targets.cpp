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
    const char* reference; // path whose figure stands beside ours; null: there is none
    double (*measure)(const RunData& data, const char* path);
};

RecordSet ofPath(const RecordSet& records, const char* path)
{
    return records.where("bytes", TargetBytes).where("path", path);
}

double ageRatio(const RunData& data, const char* path, const char* base, const char* key)
{
    return medianRatio(ofPath(data.age, path), ofPath(data.age, base), key);
}

double overloadRatio(const RunData& data, const char* path, const char* base, const char* key)
{
    return medianRatio(ofPath(data.overload, path), ofPath(data.overload, base), key);
}

double worstOf(const RecordSet& records, const char* key)
{
    const auto values = records.valuesOf(key);
    return values.empty() ? std::nan("") : *std::ranges::max_element(values);
}

// The worst round counts: no loss means none at all.
double worstLossUpToTarget(const RunData& data, const char* path)
{
    RecordSet few;
    const RecordSet all = data.fanout.where("path", path);
    for (const Record& record : all.getAll())
    {
        if (getNumber(record, "receivers") <= TargetReceivers)
            few.add(record);
    }
    return worstOf(few, "lost_pct");
}

double costOfManyToOne(const RunData& data, const char* path)
{
    const RecordSet all = data.fanout.where("path", path).where("objects", 1);
    return medianRatio(
        all.where("receivers", TargetReceivers), all.where("receivers", 1),
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
    using P = const char*;
    static const std::vector<Target> Targets = {
        {"age, 1,920 bytes", "p50 of nanomsg, our options", Limit::AtMost, 1.10, PollsId,
         [](D d, P p) { return ageRatio(d, p, RawNanomsgId, "p50_us"); }},
        {"age, 1,920 bytes", "p99 of nanomsg, our options", Limit::AtMost, 1.25, PollsId,
         [](D d, P p) { return ageRatio(d, p, RawNanomsgId, "p99_us"); }},
        {"age, 1,920 bytes", "p50 of ZeroMQ", Limit::AtMost, 0.80, RawNanomsgId,
         [](D d, P p) { return ageRatio(d, p, ZmqId, "p50_us"); }},
        {"age, 1,920 bytes", "p50 of nng", Limit::AtMost, 0.80, RawNanomsgId,
         [](D d, P p) { return ageRatio(d, p, NngId, "p50_us"); }},
        {"overload, 1,920 bytes", "p99 of nanomsg, our options", Limit::AtMost, 1.25, PollsId,
         [](D d, P p) { return overloadRatio(d, p, RawNanomsgId, "p99_us"); }},
        {"overload, 1,920 bytes", "p99 of ZeroMQ", Limit::AtMost, 0.05, RawNanomsgId,
         [](D d, P p) { return overloadRatio(d, p, ZmqId, "p99_us"); }},
        {"overload, 1,920 bytes", "delivered rate of nanomsg, our options", Limit::AtLeast, 0.85,
         PollsId, [](D d, P p) { return overloadRatio(d, p, RawNanomsgId, "delivered_per_s"); }},
        {"CPU per frame, both sides", "of nanomsg, our options, 1,920 bytes", Limit::AtMost, 1.15,
         PollsId, [](D d, P p) { return ageRatio(d, p, RawNanomsgId, "cpu_us"); }},
        {"heap allocations per frame", "sender, worst round", Limit::AtMost, 0, nullptr,
         [](D d, P p) { return worstOf(d.age.where("path", p), "sender_allocations"); }},
        {"heap allocations per frame", "receiver, worst round", Limit::AtMost, 1, nullptr,
         [](D d, P p) { return worstOf(d.age.where("path", p), "receiver_allocations"); }},
        {"fan-out", "% lost, up to 32 receivers, worst round", Limit::AtMost, 0, RawNanomsgId,
         worstLossUpToTarget},
        {"fan-out", "sender CPU per receiver at 32 of that at 1", Limit::AtMost, 1.2, RawNanomsgId,
         costOfManyToOne},
        {"join, bell, idle", "p50 ms", Limit::Below, 3, nullptr,
         [](D d, P) { return joinsWithBell(d, "join", "open_ms").p50Ms; }},
        {"join, bell, idle", "p99 ms", Limit::Below, 20, nullptr,
         [](D d, P) { return joinsWithBell(d, "join", "open_ms").p99Ms; }},
        {"join, bell, busy core", "p50 ms", Limit::Below, 3, nullptr,
         [](D d, P) { return joinsWithBell(d, "join, busy core", "open_ms").p50Ms; }},
        {"join, bell, busy core", "p99 ms", Limit::Below, 20, nullptr,
         [](D d, P) { return joinsWithBell(d, "join, busy core", "open_ms").p99Ms; }},
        {"rejoin, bell, gap 0", "p50 ms after the kill", Limit::AtMost, 60, nullptr,
         [](D d, P) { return joinsWithBell(d, "rejoin, gap 0", "kill_ms").p50Ms; }},
        {"rejoin, bell, gap 100 ms", "p50 ms after the call", Limit::Below, 10, nullptr,
         [](D d, P) { return joinsWithBell(d, "rejoin, gap 100 ms", "open_ms").p50Ms; }},
        {"rejoin, bell, gap 1000 ms", "p50 ms after the call", Limit::Below, 10, nullptr,
         [](D d, P) { return joinsWithBell(d, "rejoin, gap 1000 ms", "open_ms").p50Ms; }},
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
    Table table({"<target", "<figure", "<limit", "ours", "<verdict", "<reference"});
    for (const Target& target : allTargets())
    {
        const double value = target.measure(data, OursId);
        const char* verdict = std::isnan(value)      ? "not measured"
                              : isMet(target, value) ? "met"
                                                     : "MISSED";
        std::string reference;
        if (target.reference)
        {
            reference = labelOf(target.reference) + ": " +
                        formatNumber(target.measure(data, target.reference));
        }
        table.addRow(
            {target.subject, target.figure, describeLimit(target), formatNumber(value), verdict,
             reference});
    }
    return table;
}

} // namespace vlx::bench
