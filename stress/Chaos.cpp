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

bool Bystanders::begin(std::size_t numReceivers, const WorkerConfig& sender)
{
    m_start = miscUtils::getMonotonicSysclockTime();
    receivers = startStream(fleet, numReceivers, sender);
    if (receivers.empty() || !waitForDelivery(fleet, receivers, m_start, m_context.resumeLimitMs))
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
        m_context.resumeLimitMs,
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
        m_context.resumeLimitMs,
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
    LossSummary losses = summariseLosses(fleet, receivers, m_context.probe, m_start);
    if (!m_context.judgesLosses)
        losses.unexplained = 0;
    return losses;
}

std::optional<double> Bystanders::restartSender(const WorkerConfig& sender)
{
    const TimeValue killed = miscUtils::getMonotonicSysclockTime();
    fleet.kill(SenderSlot);
    fleet.start(SenderSlot, sender);
    return waitForDelivery(fleet, receivers, killed, m_context.resumeLimitMs);
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

Outcome fail(const std::string& figure)
{
    return {Verdict::Failed, figure};
}

namespace
{

bool diedBy(const std::optional<int>& status, int signalNumber)
{
    return status && WIFSIGNALED(*status) && WTERMSIG(*status) == signalNumber;
}

/// @return how many lines a sender logs from its start until its fifth frame is out
unsigned countSetUpLines(const WorkerConfig& sender)
{
    Fleet fleet;
    WorkerConfig config = sender;
    config.killAtLogLine = std::numeric_limits<unsigned>::max(); // every line is counted
    config.numFrames = 5;
    fleet.start(SenderSlot, config);
    fleet.start(FirstReceiverSlot, makeWorker(Role::Receiver));
    fleet.waitExit(SenderSlot, 10'000);
    return static_cast<unsigned>(fleet[SenderSlot].logLines);
}

/// Kills the sender, lets another die at its n-th log line if `dieAtEachStep`, and starts a good
/// one, so many times.
Outcome killSenders(
    const ChaosContext& context,
    NanomsgProtocol protocol,
    std::size_t numReceivers,
    bool dieAtEachStep)
{
    WorkerConfig sender = makeWorker(Role::Sender);
    sender.protocol = protocol;
    const unsigned count =
        dieAtEachStep ? countSetUpLines(sender) : 10 * static_cast<unsigned>(context.minutes);
    Bystanders stream(context);
    if (count == 0 || !stream.begin(numReceivers, sender))
        return fail(NoStream);

    std::vector<double> times;
    for (unsigned i = 1; i <= count; ++i)
    {
        if (dieAtEachStep)
        {
            WorkerConfig dying = sender;
            dying.killAtLogLine = i;
            stream.fleet.start(SenderSlot, dying);
            if (!diedBy(stream.fleet.waitExit(SenderSlot, context.resumeLimitMs), SIGKILL))
                return fail(format("the sender did not die at log line %u", i));
        }
        else
            letPass(pickRandom(0, 400));
        const auto took = stream.restartSender(sender);
        if (!took)
            return fail(format("kill %u of %u: no frames within 3 s", i, count));
        times.push_back(*took);
    }
    const bool isOk = stream.haveSameHandles();
    std::uint64_t stalls = 0;
    for (const std::size_t index : stream.receivers)
        stalls += stream.fleet[index].stallRestarts;
    return {
        isOk ? Verdict::Ok : Verdict::Failed,
        format(
            "%zu kills; resumed after p50 %.0f, max %.0f ms; stall watch used %lu times; %s",
            times.size(), getMedian(times), *std::max_element(times.begin(), times.end()), stalls,
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
        const int action = pickRandom(0, 3);
        if (action == 0)
            fleet.start(victim, makeWorker(Role::Receiver));
        else
            fleet.signal(victim, action == 1 ? SIGSTOP : SIGCONT);
        letPass(pickRandom(20, 150));
    }
    for (const std::size_t victim : victims)
        fleet.signal(victim, SIGCONT);
    return count;
}

/// A control run, and one in which a quarter of the receivers is harassed.
Outcome harassReceivers(const ChaosContext& context)
{
    constexpr std::size_t NumReceivers = 32;
    constexpr std::size_t NumVictims = 8;
    const int seconds = 12 + (context.minutes - 1) * 20;
    Bystanders control(context);
    if (!control.begin(NumReceivers))
        return fail(NoStream);
    control.receivers.resize(NumReceivers - NumVictims);
    letPass(seconds * 1'000);
    const std::uint64_t controlLost = control.getLosses().lost;
    control.fleet.killAll();

    Bystanders stream(context);
    if (!stream.begin(NumReceivers))
        return fail(NoStream);
    const auto all = stream.receivers;
    stream.receivers.resize(NumReceivers - NumVictims);
    const int count = harass(stream.fleet, {all.end() - NumVictims, all.end()}, seconds);
    const LossSummary losses = stream.getLosses();
    stream.receivers = all;
    const bool deliver = stream.areDelivering();
    return {
        deliver && losses.unexplained <= controlLost ? Verdict::Ok : Verdict::Failed,
        format(
            "%d kills, stops, resumes in %d s; others: %s; control: %lu lost%s", count, seconds,
            losses.toText().c_str(), controlLost,
            deliver ? "" : "; not all 32 deliver in the end")};
}

/// Receivers beside a client of the sender that misbehaves for a while, or until it ends.
Outcome runBeside(const ChaosContext& context, Role role, std::uint64_t numConnections = 0)
{
    const int limitMs = numConnections == 0 ? context.besideMs : 60'000;
    Bystanders stream(context);
    WorkerConfig sender = makeWorker(Role::Sender);
    sender.sequenceEveryMs = 100;
    if (!stream.begin(4, sender))
        return fail(NoStream);
    WorkerConfig peer = makeWorker(role);
    peer.numFrames = numConnections;
    const TimeValue start = miscUtils::getMonotonicSysclockTime();
    Slot& slot = stream.fleet.start(FirstPeerSlot, peer);
    waitUntil(limitMs, [&] { return !stream.fleet.isRunning(FirstPeerSlot); });
    const double seconds = toMs(miscUtils::getMonotonicSysclockTime() - start) / 1e3;
    const bool isEndless = stream.fleet.isRunning(FirstPeerSlot);
    stream.fleet.kill(FirstPeerSlot);
    const bool didWork = slot.joins > 0 && slot.joins >= numConnections;
    Outcome outcome = stream.judge(format("%lu x in %.1f s", slot.joins.load(), seconds));
    if (!didWork || isEndless != (numConnections == 0))
        return fail("the client did not do its work; " + outcome.figure);
    return outcome;
}

/// One message from a stranger, and who does not survive it.
Outcome sendToMainChannel(const ChaosContext& context, Role role)
{
    const bool toPublisher = role == Role::MessageToPublisher;
    Bystanders stream(context);
    WorkerConfig sender = makeWorker(Role::Sender);
    sender.protocol = toPublisher ? NanomsgProtocol::PubSub : NanomsgProtocol::Pipeline;
    if (!stream.begin(1, sender))
        return fail(NoStream);
    stream.fleet.start(FirstPeerSlot, makeWorker(role));
    const std::size_t victim = toPublisher ? SenderSlot : FirstReceiverSlot;
    const auto status = stream.fleet.waitExit(victim, 2'000);
    const bool isOurs = stream.fleet.readLastWords(victim).find("Assertion `") != std::string::npos;
    stream.fleet.start(FirstReceiverSlot, makeWorker(Role::Receiver));
    const auto took = stream.restartSender(sender);
    if (!took || isOurs || !diedBy(status, SIGABRT))
        return fail("it " + describeStatus(status) + (took ? "" : ", and does not come back"));
    return {Verdict::Limit, format("nanomsg aborts it; frames %.0f ms after a restart", *took)};
}

Outcome greetMalformed(const ChaosContext&)
{
    Fleet fleet;
    fleet.start(SenderSlot, makeWorker(Role::ImpostorInitialInfo));
    fleet.start(FirstReceiverSlot, makeWorker(Role::Receiver));
    const auto status = fleet.waitExit(FirstReceiverSlot, 2'000);
    if (fleet.readLastWords(FirstReceiverSlot).find("Assertion `ok' failed") == std::string::npos)
        return fail("the receiver: " + describeStatus(status));
    return {Verdict::Limit, "assertion \"ok\" stops the receiver"};
}

Outcome publishRubbish(const ChaosContext& context)
{
    Fleet fleet;
    fleet.start(SenderSlot, makeWorker(Role::ImpostorPackets));
    fleet.start(FirstReceiverSlot, makeWorker(Role::Receiver));
    waitUntil(context.resumeLimitMs, [&] { return fleet[FirstReceiverSlot].joins > 0; });
    letPass(context.besideMs);
    const std::uint64_t packets = fleet[SenderSlot].joins;
    const std::uint64_t joins = fleet[FirstReceiverSlot].joins;
    const bool survives = fleet.isRunning(FirstReceiverSlot) && joins > 0 && packets > 0;
    // The impostor leaves, a real sender comes.
    fleet.start(SenderSlot, makeWorker(Role::Sender));
    const auto took = waitForDelivery(
        fleet, {FirstReceiverSlot}, miscUtils::getMonotonicSysclockTime(), context.resumeLimitMs);
    return {
        survives && took ? Verdict::Ok : Verdict::Failed,
        format(
            "%lu packets, joined %lu times; a real sender's frames %s", packets, joins,
            took ? format("after %.0f ms", *took).c_str() : "did not come")};
}

using Context = const ChaosContext&;

constexpr Scenario PeerScenarios[] = {
    {"setup-kill", "sender killed -9 at each step of its set-up", "4 receivers resume within 3 s",
     [](Context context) { return killSenders(context, NanomsgProtocol::PubSub, 4, true); }},
    {"setup-kill-pipeline", "the same in pipeline mode", "the receiver resumes within 3 s",
     [](Context context) { return killSenders(context, NanomsgProtocol::Pipeline, 1, true); }},
    {"send-kill", "sender killed -9 while sending", "8 receivers resume within 3 s",
     [](Context context) { return killSenders(context, NanomsgProtocol::PubSub, 8, false); }},
    {"receivers", "8 of 32 receivers killed, stopped, resumed",
     "24 others lose no more than without", harassReceivers},
    {"churn", "client connects and leaves 10,000 times", "others undisturbed, nothing left",
     [](Context context) { return runBeside(context, Role::ChurnClient, 10'000); }},
    {"silent", "client joins both channels, never reads", "others undisturbed, nothing left",
     [](Context context) { return runBeside(context, Role::SilentClient); }},
    {"rubbish-sidechannel", "client writes rubbish to the sidechannel", "others undisturbed",
     [](Context context) { return runBeside(context, Role::RubbishSidechannel); }},
    {"rubbish-main", "client writes rubbish to the main channel", "others undisturbed",
     [](Context context) { return runBeside(context, Role::RubbishMainChannel); }},
    {"publisher-message", "client sends a proper message to the publisher",
     "limit: nanomsg aborts the sender",
     [](Context context) { return sendToMainChannel(context, Role::MessageToPublisher); }},
    {"puller-message", "stranger announces an endless message in pipeline",
     "limit: nanomsg aborts the receiver",
     [](Context context) { return sendToMainChannel(context, Role::MessageToPuller); }},
    {"impostor-greeting", "impostor sends a malformed InitialInfo",
     "limit: assertion \"ok\" in the receiver", greetMalformed},
    {"impostor-packets", "impostor publishes rubbish packets",
     "receiver survives, finds the real sender", publishRubbish},
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
    const bool isLenient = hasOption(arguments, "--lenient");
    const int minutes = getMinutes(arguments, 5);
    const unsigned seed = seedText.empty()
                              ? std::random_device{}()
                              : static_cast<unsigned>(std::strtoul(seedText.c_str(), nullptr, 10));
    seedRandom(seed);
    printMachine("chaos", seed);
    const RunDirectory directory;
    const PauseProbe probe;
    const ChaosContext context = {
        minutes,
        probe,
        directory.getPath(),
        isLenient ? 20'000 : 3'000,
        isLenient ? 300 : 2'000 * minutes,
        !isLenient};

    Table table({"fault", "promise", "figure", "result", "s"});
    bool failed = false;
    for (const auto& scenarios : {getPeerScenarios(), getResourceScenarios(), getClockScenarios()})
    {
        for (const Scenario& scenario : scenarios)
        {
            const std::string name = scenario.name;
            if (isInterrupted() || name.find(only) == std::string::npos)
                continue;
            const TimeValue start = miscUtils::getMonotonicSysclockTime();
            const Outcome outcome = scenario.run(context);
            const std::string seconds =
                format("%.1f", toMs(miscUtils::getMonotonicSysclockTime() - start) / 1e3);
            std::printf(
                "%-20s %-8s %5s s  %s\n", name.c_str(), toString(outcome.verdict), seconds.c_str(),
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
