/// What does each further receiver cost? 100 frames of 1,920 bytes a second.

#include <cstdio>

#include "support/Campaign.hpp"
#include "support/Interrupt.hpp"
#include "support/Session.hpp"
#include "support/Summaries.hpp"

namespace vlx::bench
{
namespace
{

const std::vector<std::size_t> Receivers = {1, 2, 4, 8, 16, 32, 64};
const std::vector<std::size_t> QuickReceivers = {1, 32};
constexpr std::uint64_t RateHz = 100;

SessionPlan makePlan(bool quick)
{
    SessionPlan plan;
    plan.rateHz = RateHz;
    plan.frames = quick ? 20 : 100;
    plan.warmUpFrames = quick ? 3 : 10;
    plan.takeMemory = true;
    return plan;
}

bool measure(Campaign& campaign, const Path& path, const SessionPlan& plan, unsigned round)
{
    auto record = runSession(path, campaign.getDirectory(), plan);
    if (!record)
        return false;
    (*record)["round"] = round;
    (*record)["sender_cpu_per_receiver_us"] =
        getNumber(*record, "sender_cpu_us") / static_cast<double>(plan.receivers);
    campaign.add(std::move(*record));
    return true;
}

bool run(Campaign& campaign)
{
    const auto paths = campaign.selectPaths({OursId, RawNanomsgId, ZmqId, NngId, "unix"});
    SessionPlan plan = makePlan(campaign.getOptions().quick);
    const auto& receiverCounts = campaign.getOptions().quick ? QuickReceivers : Receivers;
    const unsigned rounds = campaign.getOptions().rounds;
    campaign.begin(
        std::to_string(plan.frames) + " frames, " + std::to_string(plan.warmUpFrames) +
        " warm-up, " + std::to_string(rounds) + " rounds interleaved");

    bool ok = !paths.empty();
    for (unsigned round = 0; round < rounds && !isInterrupted(); round++)
    {
        for (const std::size_t receivers : receiverCounts)
        {
            plan.receivers = receivers;
            for (const Path& path : rotate(paths, round))
                ok = !isInterrupted() && measure(campaign, path, plan, round) && ok;
        }
        plan.receivers = 1;
        plan.objects = ManyObjects;
        for (const Path& path : rotate(paths, round))
            ok = !isInterrupted() && measure(campaign, path, plan, round) && ok;
        plan.objects = 1;
    }
    std::printf(
        "%s\n%s", makeFanoutTable(campaign.getRecords()).toText().c_str(),
        makeMemoryTable(campaign.getRecords()).toText().c_str());
    return ok;
}

} // namespace
} // namespace vlx::bench

int main(int argc, char** argv)
{
    return vlx::bench::runCampaign(
        argc, argv, "Loss, age, cost and memory with 1 to 64 receivers.", vlx::bench::run);
}
