#include "support/Session.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include <unistd.h>

#include "support/Clock.hpp"
#include "support/Interrupt.hpp"
#include "support/Statistics.hpp"

namespace vlx::bench
{
namespace
{

using nlohmann::json;

constexpr std::uint64_t StepTimeoutMs = 15'000;
constexpr std::uint64_t DrainTimeoutMs = 3'000;

std::optional<double> readPssKiB(pid_t pid)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/smaps_rollup");
    for (std::string word; file >> word;)
    {
        double kib = 0;
        if (word == "Pss:" && file >> kib)
            return kib;
    }
    return std::nullopt;
}

bool waitForFirstFrames(std::vector<Child>& receivers)
{
    return std::ranges::all_of(
        receivers,
        [](Child& receiver) { return receiver.expect("first", StepTimeoutMs).has_value(); });
}

void addMemory(json& record, const std::vector<Child>& receivers)
{
    double sum = 0;
    for (const Child& receiver : receivers)
        sum += readPssKiB(receiver.getPid()).value_or(0);
    record["pss_kib"] = sum / static_cast<double>(receivers.size());
}

// The figures of all receivers, one array with an entry per receiving object.
std::optional<json> collectReceivers(std::vector<Child>& receivers)
{
    json all = json::array();
    const std::uint64_t deadlineNs = nowNs() + DrainTimeoutMs * NsPerMs;
    for (Child& receiver : receivers)
    {
        const std::uint64_t leftNs = deadlineNs - std::min(deadlineNs, nowNs());
        receiver.expect("done", leftNs / NsPerMs); // missing: its end frames were lost
        receiver.tell("stop");
        const auto line = receiver.expect("result", StepTimeoutMs);
        if (!line)
            return std::nullopt;
        for (json& one : json::parse(*line))
            all.push_back(std::move(one));
    }
    return all;
}

double toMedian(const json& receivers, const char* key)
{
    std::vector<double> values;
    for (const json& one : receivers)
        values.push_back(one.value(key, std::numeric_limits<double>::quiet_NaN()));
    return median(values);
}

double toSum(const json& receivers, const char* key)
{
    double sum = 0;
    for (const json& one : receivers)
        sum += one.value(key, 0.0);
    return sum;
}

double toWorst(const json& receivers, const char* key)
{
    double worst = 0;
    for (const json& one : receivers)
        worst = std::max(worst, one.value(key, 0.0));
    return worst;
}

// CPU is counted per process, so with several objects in one process each object reports the sum.
json flatten(const json& sender, const json& receivers, const SessionPlan& plan)
{
    const double sent = sender["sent"];
    const double received = toSum(receivers, "received");
    const double objects = static_cast<double>(plan.objects);
    const double senderNs = sender["cpu_ns"];
    const double receiverNs = toSum(receivers, "cpu_ns") / objects;
    const double allocations = toSum(receivers, "allocations") / objects;
    const double expected = sent * static_cast<double>(receivers.size());

    json record;
    record["sent"] = sent;
    record["received"] = received;
    record["corrupt"] = toSum(receivers, "corrupt");
    record["lost_pct"] = 100 * (1 - received / expected);
    record["offered_per_s"] = sent * 1e9 / sender["wall_ns"].get<double>();
    record["delivered_per_s"] =
        toMedian(receivers, "received") * 1e9 / toMedian(receivers, "span_ns");
    record["sender_cpu_us"] = senderNs / 1000 / sent;
    record["receiver_cpu_us"] = receiverNs / 1000 / received;
    record["cpu_us"] = senderNs / 1000 / sent + receiverNs / 1000 / received;
    record["delivered_cpu_us"] = (senderNs + receiverNs) / 1000 / received;
    record["sender_allocations"] = sender["allocations"].get<double>() / sent;
    record["receiver_allocations"] = allocations / received;
    record["worst_p99_us"] = toWorst(receivers, "p99_us");
    for (const char* key :
         {"p10_us", "p25_us", "p50_us", "p75_us", "p90_us", "p99_us", "p999_us", "max_us"})
        record[key] = toMedian(receivers, key);
    return record;
}

std::optional<json>
trySession(const Path& path, const std::string& directory, const SessionPlan& plan)
{
    const std::string name = makeSessionName();
    Child sender = startEndpoint("send", path, directory, name, plan);
    sender.tell("open");
    if (!sender.expect("opened", StepTimeoutMs))
        return std::nullopt;

    std::vector<Child> receivers;
    for (std::size_t i = 0; i < plan.receivers; i++)
        receivers.push_back(startEndpoint("receive", path, directory, name, plan));
    if (!waitForFirstFrames(receivers))
        return std::nullopt;

    sender.tell("go");
    const auto sent = sender.expect(
        "result", StepTimeoutMs + plan.floodMs + std::uint64_t{plan.frames} * 1000 / plan.rateHz);
    if (!sent)
        return std::nullopt;
    json memory = json::object();
    if (plan.takeMemory)
        addMemory(memory, receivers);
    const auto received = collectReceivers(receivers);
    if (!received)
        return std::nullopt;
    json record = flatten(json::parse(*sent), *received, plan);
    record.update(memory);
    return record;
}

} // namespace

std::string makeSessionName()
{
    static unsigned count = 0;
    return "b" + std::to_string(getpid()) + "-" + std::to_string(++count);
}

Child startEndpoint(
    const std::string& role,
    const Path& path,
    const std::string& directory,
    const std::string& name,
    const SessionPlan& plan,
    const std::vector<std::string>& further)
{
    std::vector<std::string> command = {getEndpointProgram(path), role};
    const auto add = [&command](const char* option, const auto& value)
    {
        command.emplace_back(option);
        if constexpr (std::is_integral_v<std::decay_t<decltype(value)>>)
            command.push_back(std::to_string(value));
        else
            command.push_back(value);
    };
    add("--name", name);
    add("--directory", directory);
    if (!path.variant.empty())
        add("--variant", path.variant);
    add("--bytes", plan.mediaBytes);
    add("--rate", plan.rateHz);
    add("--warm-up", plan.warmUpFrames);
    add("--frames", plan.frames);
    add("--flood-ms", plan.floodMs);
    add("--objects", plan.objects);
    command.insert(command.end(), further.begin(), further.end());
    setenv("TMPDIR", directory.c_str(), 1);
    return Child(command);
}

std::optional<json>
runSession(const Path& path, const std::string& directory, const SessionPlan& plan)
{
    for (int attempt = 1; attempt <= 2 && !isInterrupted(); attempt++)
    {
        if (auto record = trySession(path, directory, plan))
        {
            (*record)["path"] = path.id;
            (*record)["bytes"] = plan.mediaBytes;
            (*record)["receivers"] = plan.receivers;
            (*record)["objects"] = plan.objects;
            (*record)["attempt"] = attempt;
            return record;
        }
        std::fprintf(stderr, "%s: session failed, attempt %d\n", path.label.c_str(), attempt);
    }
    return std::nullopt;
}

std::optional<double>
measurePacingUs(const Path& path, const std::string& directory, const SessionPlan& plan)
{
    Child sender = startEndpoint("send", path, directory, makeSessionName(), plan, {"--dry"});
    sender.tell("open");
    if (!sender.expect("opened", StepTimeoutMs))
        return std::nullopt;
    sender.tell("go");
    const auto line = sender.expect("result", StepTimeoutMs);
    if (!line)
        return std::nullopt;
    const json result = json::parse(*line);
    return result["cpu_ns"].get<double>() / 1000 / result["sent"].get<double>();
}

} // namespace vlx::bench
