/// How old is a frame when it arrives, and what does it cost? A steady 1,000 frames a second.

#include <cstdio>

#include "support/Campaign.hpp"
#include "support/Interrupt.hpp"
#include "support/Session.hpp"
#include "support/Summaries.hpp"

namespace vlx::bench
{
namespace
{

constexpr std::size_t Sizes[] = {64, 1920, 7680, 65536};
constexpr std::uint64_t RateHz = 1000;

SessionPlan makePlan(bool quick)
{
    SessionPlan plan;
    plan.rateHz = RateHz;
    plan.frames = quick ? 150 : 2000;
    plan.warmUpFrames = quick ? 30 : 200;
    return plan;
}

bool measure(Campaign& campaign, const Path& path, const SessionPlan& plan, unsigned round)
{
    auto record = runSession(path, campaign.getDirectory(), plan);
    if (!record)
        return false;
    (*record)["round"] = round;
    campaign.add(std::move(*record));
    return true;
}

// What the sender's process costs without sending, once per round: it is part of every path's cost.
void measurePacing(Campaign& campaign, const Path& path, const SessionPlan& plan, unsigned round)
{
    if (const auto us = measurePacingUs(path, campaign.getDirectory(), plan))
        campaign.add({{"pacing_cpu_us", *us}, {"round", round}});
}

bool run(Campaign& campaign)
{
    const auto paths = campaign.selectPaths(
        {OursId, RawNanomsgId, PollsId, "nanomsg", ZmqId, "zmq-tuned", NngId, "nng-tuned", "unix",
         "gst-shm"});
    SessionPlan plan = makePlan(campaign.getOptions().quick);
    const unsigned rounds = campaign.getOptions().rounds;
    campaign.begin(
        std::to_string(plan.frames) + " frames, " + std::to_string(plan.warmUpFrames) +
        " warm-up, " + std::to_string(rounds) + " rounds interleaved");

    bool ok = !paths.empty();
    for (unsigned round = 0; round < rounds && !isInterrupted(); round++)
    {
        if (!paths.empty())
            measurePacing(campaign, paths.front(), plan, round);
        for (const std::size_t bytes : Sizes)
        {
            plan.mediaBytes = bytes;
            for (const Path& path : rotate(paths, round))
                ok = !isInterrupted() && measure(campaign, path, plan, round) && ok;
        }
    }
    std::printf(
        "%sthe sender's pacing alone: %s us/frame, contained above\n",
        makeAgeTable(campaign.getRecords()).toText().c_str(),
        formatNumber(campaign.getRecords().medianOf("pacing_cpu_us")).c_str());
    return ok;
}

} // namespace
} // namespace vlx::bench

int main(int argc, char** argv)
{
    return vlx::bench::runCampaign(
        argc, argv, "Age of a frame at 1,000 frames a second, and its cost.", vlx::bench::run);
}
