/// How fast is a receiver in, and back in? 1,000 frames of 1,920 bytes a second.
///
/// Join: a receiver waits, a sender starts. Rejoin: a sender is killed with -9 and another one is
/// started under its name. Cases alternate within each repetition; each case keeps one receiver's
/// process for all repetitions.

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <random>

#include "support/Campaign.hpp"
#include "support/Clock.hpp"
#include "support/Interrupt.hpp"
#include "support/Session.hpp"
#include "support/Summaries.hpp"

namespace vlx::bench
{
namespace
{

constexpr std::uint64_t StepTimeoutMs = 10'000;
// A receiver without a frame by then never gets one: it has missed the announcement of the sequence.
constexpr std::uint64_t NeverMs = 3000;
constexpr int SetUpAttempts = 3;
// After a sender's end a receiver needs 50 ms of silence, and is somewhere in its 400 ms retry.
constexpr std::uint64_t SilenceMs = 150;
constexpr std::uint64_t RetryMs = 400;

// Which paths a scenario is run with; ours always with the bell.
enum class Company
{
    BellOnly,
    BellAndSilent,
    Peers, // and ours both ways
};

struct Scenario
{
    const char* text;                   // in tables
    std::optional<std::uint64_t> gapMs; // rejoin: from the kill to the next sender's start
    Company company;
    bool busy; // beside a busy core
};

constexpr Scenario Scenarios[] = {
    {"join", std::nullopt, Company::Peers, false},
    {"join, busy core", std::nullopt, Company::BellAndSilent, true},
    {"rejoin, gap 0", 0, Company::Peers, false},
    {"rejoin, gap 100 ms", 100, Company::BellAndSilent, false},
    {"rejoin, gap 1000 ms", 1000, Company::BellOnly, false},
};

// How the sender helps a waiting receiver.
std::string describeBell(const Path& path)
{
    if (path.id != OursId)
        return "-";
    if (path.variant == "bell")
        return "yes";
    return path.variant == "bell-again" ? "yes, announced twice" : "no";
}

// One row of the table: a path, with or without the bell, in one scenario.
class Case
{
public:
    // In a directory of its own: other cases' senders shall not wake this one's receiver.
    Case(const Campaign& campaign, const Scenario& scenario, const Path& path)
        : m_scenario(scenario),
          m_path(path),
          m_name(makeSessionName()),
          m_directory(campaign.getDirectory() + "/" + m_name)
    {
        std::filesystem::create_directory(m_directory);
    }

    // One repetition. Nothing if the processes do not work; a receiver that never gets a frame is
    // a result.
    std::optional<Record> measure(std::mt19937& random)
    {
        auto record = m_scenario.gapMs ? measureRejoin(*m_scenario.gapMs) : measureJoin(random);
        if (!record || record->contains("never"))
            m_receiver.reset(); // the next repetition begins with a new one
        m_senderEndNs = nowNs();
        return record;
    }

private:
    // Set up as far as the call that opens the stream.
    Child prepareSender(const Path& path)
    {
        m_epoch = static_cast<std::uint16_t>(m_epoch + 1);
        Child sender = startEndpoint(
            "send", path, m_directory, m_name, m_plan, {"--epoch", std::to_string(m_epoch)});
        sender.expect("ready", StepTimeoutMs);
        return sender;
    }

    static std::optional<std::uint64_t> openStream(Child& sender)
    {
        sender.tell("open");
        const auto calledNs = sender.expect("opened", StepTimeoutMs);
        if (!calledNs)
            return std::nullopt;
        return std::stoull(*calledNs);
    }

    // Time of the first frame of the current sender at the receiver.
    std::optional<std::uint64_t> waitForFirstFrame()
    {
        const std::string prefix = std::to_string(m_epoch) + " ";
        while (const auto line = m_receiver->expect("first", NeverMs))
        {
            if (line->starts_with(prefix))
                return std::stoull(line->substr(prefix.size()));
        }
        return std::nullopt;
    }

    // @param calledNs  when the stream was opened
    Record makeRecord(std::uint64_t calledNs, std::optional<std::uint64_t> firstNs) const
    {
        const std::string bell = describeBell(m_path);
        Record record = {
            {"case", m_scenario.text},
            {"path", m_path.id},
            {"bell", bell},
            {"row", m_path.id + " " + bell}};
        if (firstNs)
            record["open_ms"] = toMs(calledNs, *firstNs);
        else
            record["never"] = true;
        return record;
    }

    void startReceiver()
    {
        m_receiver.emplace(startEndpoint("receive", m_path, m_directory, m_name, m_plan));
        m_receiver->expect("ready", StepTimeoutMs);
    }

    static double toMs(std::uint64_t fromNs, std::uint64_t toNs)
    {
        return (static_cast<double>(toNs) - static_cast<double>(fromNs)) / 1e6;
    }

    // The receiver is known to wait: it has lost the last sender, and its retry is anywhere.
    std::optional<Record> measureJoin(std::mt19937& random)
    {
        if (!m_receiver)
            startReceiver();
        Child sender = prepareSender(m_path);
        const std::uint64_t waitMs =
            std::uniform_int_distribution<std::uint64_t>(0, RetryMs)(random);
        const std::uint64_t waitingNs = m_senderEndNs + SilenceMs * NsPerMs;
        sleepUntilNs(std::max(waitingNs, nowNs()) + waitMs * NsPerMs);
        const auto calledNs = openStream(sender);
        if (!calledNs)
            return std::nullopt;
        return makeRecord(*calledNs, waitForFirstFrame());
    }

    // A sender with a receiver that gets its frames.
    std::optional<Child> prepareVictim()
    {
        Path path = m_path;
        if (path.id == OursId)
            path.variant = "bell"; // not measured: as quickly as possible
        for (int attempt = 0; attempt < SetUpAttempts; attempt++)
        {
            if (!m_receiver)
                startReceiver();
            Child victim = prepareSender(path);
            if (openStream(victim) && waitForFirstFrame())
                return victim;
            m_receiver.reset();
        }
        return std::nullopt;
    }

    std::optional<Record> measureRejoin(std::uint64_t gapMs)
    {
        std::optional<Child> victim = prepareVictim();
        if (!victim)
            return std::nullopt;
        Child next = prepareSender(m_path);
        sleepUntilNs(nowNs() + SilenceMs * NsPerMs);
        const std::uint64_t killNs = nowNs();
        victim->kill();
        sleepUntilNs(killNs + gapMs * NsPerMs);
        const auto calledNs = openStream(next);
        if (!calledNs)
            return std::nullopt;
        const auto firstNs = waitForFirstFrame();
        Record record = makeRecord(*calledNs, firstNs);
        if (firstNs)
            record["kill_ms"] = toMs(killNs, *firstNs);
        return record;
    }

    Scenario m_scenario;
    Path m_path;
    std::string m_name;
    std::string m_directory;
    SessionPlan m_plan;
    std::uint16_t m_epoch = 0; // of the latest sender
    std::uint64_t m_senderEndNs = 0;
    std::optional<Child> m_receiver;
};

std::vector<Path> listPaths(const Campaign& campaign, Company company)
{
    std::vector<std::string> ids = {OursId};
    if (company == Company::Peers)
        ids.insert(ids.end(), {RawNanomsgId, ZmqId, NngId});
    std::vector<Path> paths;
    for (const Path& path : campaign.selectPaths(ids))
    {
        paths.push_back(path);
        if (path.id != OursId || company == Company::BellOnly)
            continue;
        for (const char* variant : {"bell-again", ""})
            paths.emplace_back(path).variant = variant;
    }
    return paths;
}

bool measureScenario(Campaign& campaign, const Scenario& scenario, unsigned repetitions)
{
    std::mt19937 random(1);
    std::vector<std::unique_ptr<Case>> cases;
    for (const Path& path : listPaths(campaign, scenario.company))
        cases.push_back(std::make_unique<Case>(campaign, scenario, path));
    std::optional<BusyProcess> busy;
    if (scenario.busy)
        busy.emplace();
    bool ok = !cases.empty();
    for (unsigned repetition = 0; repetition < repetitions; repetition++)
    {
        for (const auto& one : cases)
        {
            auto record = one->measure(random);
            if (isInterrupted())
                return false;
            ok = record.has_value() && ok;
            if (!record)
                continue;
            (*record)["repetition"] = repetition;
            campaign.add(std::move(*record));
        }
    }
    return ok;
}

bool run(Campaign& campaign)
{
    const bool quick = campaign.getOptions().quick;
    const unsigned repetitions = quick ? 6 : 100;
    campaign.begin(std::to_string(repetitions) + " repetitions interleaved");
    bool ok = true;
    for (const Scenario& scenario : Scenarios)
        ok = !isInterrupted() && measureScenario(campaign, scenario, repetitions) && ok;
    std::printf("%s", makeJoinTable(campaign.getRecords()).toText().c_str());
    return ok;
}

} // namespace
} // namespace vlx::bench

int main(int argc, char** argv)
{
    return vlx::bench::runCampaign(
        argc, argv, "Time to the first frame after a start, and after a kill.", vlx::bench::run);
}
