/// What happens to the age of frames when the producer sends as fast as the call returns?

#include <cstdio>

#include "support/Campaign.hpp"
#include "support/Interrupt.hpp"
#include "support/Session.hpp"
#include "support/Summaries.hpp"

namespace vlx::bench
{
namespace
{

const std::vector<std::size_t> Sizes = {1920, 65536};
const std::vector<std::size_t> QuickSizes = {1920};
constexpr std::uint32_t WarmUpFrames = 2000;

bool run(Campaign& campaign)
{
    const auto paths = campaign.selectPaths(
        {OursId, RawNanomsgId, PollsId, "nanomsg", ZmqId, "zmq-tuned", NngId, "nng-tuned", "unix",
         "gst-shm"});
    SessionPlan plan;
    const auto& sizes = campaign.getOptions().quick ? QuickSizes : Sizes;
    plan.floodMs = campaign.getOptions().quick ? 200 : 1500;
    plan.warmUpFrames = WarmUpFrames;
    const unsigned rounds = campaign.getOptions().rounds;
    campaign.begin(
        "flood of " + std::to_string(plan.floodMs) + " ms, " + std::to_string(WarmUpFrames) +
        " frames warm-up, " + std::to_string(rounds) + " rounds interleaved");

    bool ok = !paths.empty();
    for (unsigned round = 0; round < rounds; round++)
    {
        for (const std::size_t bytes : sizes)
        {
            plan.mediaBytes = bytes;
            for (const Path& path : rotate(paths, round))
            {
                auto record = runSession(path, campaign.getDirectory(), plan);
                if (isInterrupted())
                    return false;
                ok = record.has_value() && ok;
                if (!record)
                    continue;
                (*record)["round"] = round;
                campaign.add(std::move(*record));
            }
        }
    }
    std::printf("%s", makeOverloadTable(campaign.getRecords()).toText().c_str());
    return ok;
}

} // namespace
} // namespace vlx::bench

int main(int argc, char** argv)
{
    return vlx::bench::runCampaign(
        argc, argv, "Age, loss and rate when the producer floods.", vlx::bench::run);
}
