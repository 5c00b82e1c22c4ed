// Kills, misbehaving peers, and the run over all faults.

#include "Chaos.hpp"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <random>

#include <sys/wait.h>

#include <miscUtils/MiscUtils.hpp>

#include "Runs.hpp"

namespace vlx::stress
{

bool Bystanders::begin(
    std::size_t numReceivers,
    const WorkerConfig& sender,
    const WorkerConfig& receiver)
{
    m_start = miscUtils::getMonotonicSysclockTime();
    receivers = startStream(fleet, numReceivers, sender, receiver);
    if (receivers.empty() || !waitForDelivery(fleet, receivers, m_start, ResumeLimitMs))
        return false;
    letPass(200);
    m_handles = readHandles();
    return true;
}

bool Bystanders::areDelivering()
{
    std::vector<std::uint64_t> before;
    for (const std::size_t index : receivers)
        before.push_back(fleet[index].countFrames());
    return waitUntil(
        ResumeLimitMs,
        [&]
        {
            for (std::size_t i = 0; i < receivers.size(); ++i)
                if (fleet[receivers[i]].countFrames() < before[i] + 20)
                    return false;
            return true;
        });
}

std::vector<ProcessFigures> Bystanders::readHandles()
{
    std::vector<ProcessFigures> handles = {readProcessFigures(fleet.getPid(SenderSlot))};
    for (const std::size_t index : receivers)
        handles.push_back(readProcessFigures(fleet.getPid(index)));
    return handles;
}

bool Bystanders::haveSameHandles()
{
    return waitUntil(
        ResumeLimitMs,
        [&]
        {
            const auto now = readHandles();
            return std::equal(
                now.begin(), now.end(), m_handles.begin(), m_handles.end(),
                [](const auto& left, const auto& right) { return left.hasSameHandles(right); });
        });
}

LossSummary Bystanders::getLosses()
{
    return summariseLosses(fleet, receivers, m_context.probe, m_start);
}

std::optional<double> Bystanders::restartSender(const WorkerConfig& sender)
{
    const TimeValue killed = miscUtils::getMonotonicSysclockTime();
    fleet.kill(SenderSlot);
    fleet.start(SenderSlot, sender);
    return waitForDelivery(fleet, receivers, killed, ResumeLimitMs);
}

Outcome Bystanders::judge(const std::string& done)
{
    const bool deliver = areDelivering();
    const bool sameHandles = haveSameHandles();
    const LossSummary losses = getLosses();
    std::string figure = done + "; " + losses.toText();
    if (!deliver)
        figure += "; a receiver gets no frames any more";
    if (!sameHandles)
        figure += "; descriptors or threads left";
    const bool isOk = deliver && sameHandles && losses.unexplained == 0;
    return {isOk ? Verdict::Ok : Verdict::Failed, figure};
}

WorkerConfig makePeer(Role role)
{
    WorkerConfig config;
    config.role = role;
    return config;
}

Outcome fail(const std::string& figure)
{
    return {Verdict::Failed, figure};
}

namespace
{

constexpr const char* NoStream = "the stream itself did not start";

/// @return how many lines a sender logs from its start until its fifth frame is out
unsigned countSetUpLines(const WorkerConfig& sender)
{
    Fleet fleet;
    WorkerConfig config = sender;
    config.killAtLogLine = std::numeric_limits<unsigned>::max(); // every line is counted
    config.numFrames = 5;
    fleet.start(SenderSlot, config);
    fleet.start(FirstReceiverSlot, makeReceiver());
    fleet.waitExit(SenderSlot, ResumeLimitMs);
    return static_cast<unsigned>(fleet[SenderSlot].logLines);
}

/// Kills a sender at its n-th log line, for every n, and starts a good one each time.
Outcome killAtEachStep(const ChaosContext& context, NanomsgProtocol protocol, std::size_t count)
{
    WorkerConfig sender = makeSender();
    sender.protocol = protocol;
    const unsigned numLines = countSetUpLines(sender);
    Bystanders stream(context);
    if (!stream.begin(count, sender))
        return fail(NoStream);

    std::vector<double> times;
    for (unsigned line = 1; line <= numLines; ++line)
    {
        WorkerConfig dying = sender;
        dying.killAtLogLine = line;
        stream.fleet.start(SenderSlot, dying);
        const auto status = stream.fleet.waitExit(SenderSlot, ResumeLimitMs);
        if (!status || !WIFSIGNALED(*status) || WTERMSIG(*status) != SIGKILL)
            return fail(
                format("at log line %u: the sender %s", line, describeStatus(status).c_str()));
        const auto took = stream.restartSender(sender);
        if (!took)
            return fail(format("killed at log line %u: no frames within 3 s after", line));
        times.push_back(*took);
    }
    const bool isOk = stream.haveSameHandles() && !times.empty();
    return {
        isOk ? Verdict::Ok : Verdict::Failed,
        format(
            "%zu steps; resumed after p50 %.0f, max %.0f ms; %s", times.size(), getMedian(times),
            *std::max_element(times.begin(), times.end()),
            isOk ? "nothing left" : "descriptors or threads left")};
}

Outcome killAtEachStepPubSub(const ChaosContext& context)
{
    return killAtEachStep(context, NanomsgProtocol::PubSub, 4);
}

Outcome killAtEachStepPipeline(const ChaosContext& context)
{
    return killAtEachStep(context, NanomsgProtocol::Pipeline, 1);
}

Outcome killWhileSending(const ChaosContext& context)
{
    Bystanders stream(context);
    if (!stream.begin(8))
        return fail(NoStream);
    std::vector<double> times;
    const int count = 10 * context.minutes;
    for (int i = 0; i < count && !isInterrupted(); ++i)
    {
        letPass(pickRandom(0, 400));
        const auto took = stream.restartSender();
        if (!took)
            return fail(format("kill %d: no frames within 3 s", i + 1));
        times.push_back(*took);
    }
    const bool isOk = stream.haveSameHandles() && !times.empty();
    return {
        isOk ? Verdict::Ok : Verdict::Failed,
        format(
            "%zu kills; resumed after p50 %.0f, max %.0f ms; %s", times.size(), getMedian(times),
            *std::max_element(times.begin(), times.end()),
            isOk ? "nothing left" : "descriptors or threads left")};
}

/// Kills, stops and resumes some receivers at random for a while.
int harass(Fleet& fleet, const std::vector<std::size_t>& victims, int seconds)
{
    const TimeValue end =
        miscUtils::getMonotonicSysclockTime() + static_cast<TimeValue>(seconds) * NsPerSecond;
    int count = 0;
    for (; miscUtils::getMonotonicSysclockTime() < end && !isInterrupted(); ++count)
    {
        const int last = static_cast<int>(victims.size()) - 1;
        const std::size_t victim = victims[static_cast<std::size_t>(pickRandom(0, last))];
        switch (pickRandom(0, 3))
        {
        case 0:
            fleet.start(victim, makeReceiver());
            break;
        case 1:
            fleet.signal(victim, SIGSTOP);
            break;
        default:
            fleet.signal(victim, SIGCONT);
        }
        letPass(pickRandom(20, 150));
    }
    for (const std::size_t victim : victims)
        fleet.signal(victim, SIGCONT);
    return count;
}

Outcome harassReceivers(const ChaosContext& context)
{
    constexpr std::size_t NumReceivers = 32;
    constexpr std::size_t NumVictims = 8;
    const int seconds = 12 + (context.minutes - 1) * 20;
    std::uint64_t controlLost = 0;
    for (const bool isControl : {true, false})
    {
        Bystanders stream(context);
        if (!stream.begin(NumReceivers))
            return fail(NoStream);
        // The others are a part of all receivers, the same number in both runs.
        const std::vector<std::size_t> victims(
            stream.receivers.end() - NumVictims, stream.receivers.end());
        std::vector<std::size_t> all = stream.receivers;
        stream.receivers.resize(NumReceivers - NumVictims);
        if (isControl)
        {
            letPass(seconds * 1'000);
            controlLost = stream.getLosses().lost;
            continue;
        }
        const int count = harass(stream.fleet, victims, seconds);
        const LossSummary losses = stream.getLosses();
        stream.receivers = std::move(all);
        const bool deliver = stream.areDelivering();
        const bool isOk = deliver && losses.unexplained <= controlLost;
        return {
            isOk ? Verdict::Ok : Verdict::Failed,
            format(
                "%d kills, stops, resumes in %d s; others: %s; control: %lu lost%s", count, seconds,
                losses.toText().c_str(), controlLost,
                deliver ? "" : "; not all 32 deliver in the end")};
    }
    return fail(NoStream);
}

/// Receivers beside a client of the sender that misbehaves for a while, or until it ends.
Outcome runBeside(const ChaosContext& context, const WorkerConfig& peer, int limitMs)
{
    Bystanders stream(context);
    WorkerConfig sender = makeSender();
    sender.sequenceEveryMs = 100;
    if (!stream.begin(4, sender))
        return fail(NoStream);
    const TimeValue start = miscUtils::getMonotonicSysclockTime();
    Slot& slot = stream.fleet.start(FirstPeerSlot, peer);
    waitUntil(limitMs, [&] { return !stream.fleet.isRunning(FirstPeerSlot); });
    const double seconds = toMs(miscUtils::getMonotonicSysclockTime() - start) / 1e3;
    const bool isEndless = stream.fleet.isRunning(FirstPeerSlot);
    stream.fleet.kill(FirstPeerSlot);
    const bool didWork =
        slot.ready && (peer.numFrames == 0 ? isEndless : slot.joins >= peer.numFrames);
    Outcome outcome = stream.judge(format("%lu x in %.1f s", slot.joins.load(), seconds));
    if (!didWork)
        return fail("the client did not do its work; " + outcome.figure);
    return outcome;
}

Outcome churn(const ChaosContext& context)
{
    WorkerConfig peer = makePeer(Role::ChurnClient);
    peer.numFrames = 10'000;
    return runBeside(context, peer, 60'000);
}

Outcome neverRead(const ChaosContext& context)
{
    return runBeside(context, makePeer(Role::SilentClient), 2'000);
}

Outcome writeRubbishToSidechannel(const ChaosContext& context)
{
    return runBeside(context, makePeer(Role::RubbishSidechannel), 2'000);
}

Outcome writeRubbishToMainChannel(const ChaosContext& context)
{
    return runBeside(context, makePeer(Role::RubbishMainChannel), 2'000);
}

Outcome sendToPublisher(const ChaosContext& context)
{
    Bystanders stream(context);
    if (!stream.begin(2))
        return fail(NoStream);
    stream.fleet.start(FirstPeerSlot, makePeer(Role::MessageToPublisher));
    const auto status = stream.fleet.waitExit(SenderSlot, 2'000);
    if (!status)
        return {Verdict::Ok, "the sender goes on"};
    const auto took = stream.restartSender();
    if (!took || !WIFSIGNALED(*status) || WTERMSIG(*status) != SIGABRT)
        return fail("the sender: " + describeStatus(status));
    return {
        Verdict::Limit,
        format("nanomsg aborts the sender; receivers resume %.0f ms after its restart", *took)};
}

Outcome greetMalformed(const ChaosContext& context)
{
    static_cast<void>(context);
    Fleet fleet;
    fleet.start(SenderSlot, makePeer(Role::ImpostorInitialInfo));
    fleet.start(FirstReceiverSlot, makeReceiver());
    const auto status = fleet.waitExit(FirstReceiverSlot, 2'000);
    const bool isAssertion =
        fleet.readLastWords(FirstReceiverSlot).find("Assertion `ok' failed") != std::string::npos;
    if (!isAssertion)
        return fail("the receiver: " + describeStatus(status));
    return {Verdict::Limit, "assertion \"ok\" stops the receiver"};
}

Outcome publishRubbish(const ChaosContext& context)
{
    Fleet fleet;
    Slot& impostor = fleet.start(SenderSlot, makePeer(Role::ImpostorPackets));
    fleet.start(FirstReceiverSlot, makeReceiver());
    letPass(2'000 * context.minutes);
    const std::uint64_t joins = fleet[FirstReceiverSlot].joins;
    const bool survives = fleet.isRunning(FirstReceiverSlot) && joins > 0 && impostor.joins > 0;
    // The impostor leaves, a real sender comes.
    fleet.start(SenderSlot, makeSender());
    const auto took = waitForDelivery(
        fleet, {FirstReceiverSlot}, miscUtils::getMonotonicSysclockTime(), ResumeLimitMs);
    return {
        survives && took ? Verdict::Ok : Verdict::Failed,
        format(
            "joined %lu times; a real sender's frames %s", joins,
            took ? format("after %.0f ms", *took).c_str() : "did not come")};
}

constexpr Scenario PeerScenarios[] = {
    {"setup-kill", "sender killed -9 at each step of its set-up", "4 receivers resume within 3 s",
     killAtEachStepPubSub},
    {"setup-kill-pipeline", "the same in pipeline mode", "the receiver resumes within 3 s",
     killAtEachStepPipeline},
    {"send-kill", "sender killed -9 while sending", "8 receivers resume within 3 s",
     killWhileSending},
    {"receivers", "8 of 32 receivers killed, stopped, resumed",
     "24 others lose no more than without", harassReceivers},
    {"churn", "client connects and leaves 10,000 times", "others undisturbed, nothing left", churn},
    {"silent", "client joins both channels, never reads", "others undisturbed, nothing left",
     neverRead},
    {"rubbish-sidechannel", "client writes rubbish to the sidechannel", "others undisturbed",
     writeRubbishToSidechannel},
    {"rubbish-main", "client writes rubbish to the main channel", "others undisturbed",
     writeRubbishToMainChannel},
    {"publisher-message", "client sends a proper message to the publisher", "limit: may abort it",
     sendToPublisher},
    {"impostor-greeting", "impostor sends a malformed InitialInfo", "limit: assertion \"ok\"",
     greetMalformed},
    {"impostor-packets", "impostor publishes rubbish packets",
     "receiver survives, finds real sender", publishRubbish},
};

const char* toString(Verdict verdict)
{
    switch (verdict)
    {
    case Verdict::Ok:
        return "ok";
    case Verdict::Failed:
        return "FAILED";
    case Verdict::Limit:
        return "limit";
    case Verdict::Skipped:
        return "skipped";
    }
    return "unknown";
}

} // namespace

std::span<const Scenario> getPeerScenarios()
{
    return PeerScenarios;
}

int runChaos(const Arguments& arguments)
{
    const std::string only = getOption(arguments, "--only", "");
    const std::string seedText = getOption(arguments, "--seed", "");
    const unsigned seed = seedText.empty()
                              ? std::random_device{}()
                              : static_cast<unsigned>(std::strtoul(seedText.c_str(), nullptr, 10));
    seedRandom(seed);
    printMachine("chaos", seed);
    const RunDirectory directory;
    const PauseProbe probe;
    const ChaosContext context = {getMinutes(arguments, 5), probe, directory.getPath()};

    Table table({"fault", "promise", "figure", "result", "s"});
    bool failed = false;
    for (const auto& scenarios : {getPeerScenarios(), getResourceScenarios(), getClockScenarios()})
    {
        for (const Scenario& scenario : scenarios)
        {
            if (std::string(scenario.name).find(only) == std::string::npos || isInterrupted())
                continue;
            const TimeValue start = miscUtils::getMonotonicSysclockTime();
            const Outcome outcome = scenario.run(context);
            const std::string seconds =
                format("%.1f", toMs(miscUtils::getMonotonicSysclockTime() - start) / 1e3);
            std::printf(
                "%-20s %-8s %5s s  %s\n", scenario.name, toString(outcome.verdict), seconds.c_str(),
                outcome.figure.c_str());
            std::fflush(stdout);
            table.addRow(
                {scenario.fault, scenario.promise, outcome.figure, toString(outcome.verdict),
                 seconds});
            failed = failed || outcome.verdict == Verdict::Failed;
        }
    }
    std::printf("\n");
    table.print();
    return failed || isInterrupted() ? ExitFailed : ExitPassed;
}

} // namespace vlx::stress
