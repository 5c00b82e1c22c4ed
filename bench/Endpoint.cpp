/// One end of a session: sends or receives frames over the adapter that it is linked with.
///
/// A driver talks to it by lines. Sender: "open" makes the stream reachable and starts probe frames,
/// answered by "opened" and the time of the call; "go" runs the measurement, answered by "result".
/// Receiver: "first", the sender's epoch and the time of arrival at the first frame of each sender;
/// "done" at the end of the measurement; "stop" is answered by "result". The end of standard input
/// ends the process, and so does the driver's death.

#include <algorithm>
#include <atomic>
#include <cmath>
#include <csignal>
#include <deque>
#include <iostream>
#include <memory>
#include <string>
#include <thread>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>
#include <sys/prctl.h>
#include <unistd.h>

#include "Transport.hpp"
#include "support/AllocationCount.hpp"
#include "support/Clock.hpp"
#include "support/FrameTag.hpp"

namespace vlx::bench
{
namespace
{

constexpr std::uint32_t EndFrames = 20;
constexpr std::uint64_t ProbeRateHz = 1000;
constexpr std::uint64_t SettleNs = 20 * NsPerMs;
constexpr std::size_t MaxFloodFrames = 8'000'000;

struct EndpointOptions
{
    Link link;
    std::uint16_t epoch = 1;
    std::uint64_t rateHz = 1000;
    std::uint32_t warmUpFrames = 0;
    std::uint32_t frames = 0;  // 0: flood
    std::uint64_t floodMs = 0; // length of the flood
    std::size_t objects = 1;   // subscribers in this process
    bool dry = false;          // sender: pace and stamp, but send nothing
};

void say(const std::string& line)
{
    const std::string whole = line + "\n";
    if (write(STDOUT_FILENO, whole.data(), whole.size()) != static_cast<ssize_t>(whole.size()))
        _exit(1);
}

// What this process has used so far.
struct Usage
{
    std::uint64_t timeNs = 0;
    std::uint64_t cpuNs = 0;
    std::uint64_t allocations = 0;

    static Usage now()
    {
        return {nowNs(), processCpuNs(), countAllocations()};
    }
};

nlohmann::json toJson(const Usage& begin, const Usage& end)
{
    return {
        {"wall_ns", end.timeNs - begin.timeNs},
        {"cpu_ns", end.cpuNs - begin.cpuNs},
        {"allocations", end.allocations - begin.allocations}};
}

// The smallest value that at least this share, 0 to 1, of all values does not exceed.
double percentile(const std::vector<double>& sorted, double share)
{
    const double rank = std::ceil(share * static_cast<double>(sorted.size()));
    return sorted[static_cast<std::size_t>(std::max(rank, 1.0)) - 1];
}

class SendingEnd
{
public:
    explicit SendingEnd(const EndpointOptions& options)
        : m_options(options), m_publisher(makePublisher(options.link))
    {
    }

    bool openStream()
    {
        const std::uint64_t calledNs = nowNs();
        if (!m_publisher->open())
            return false;
        m_prober = std::thread([this] { probe(); });
        say("opened " + std::to_string(calledNs));
        return true;
    }

    void stopProbing()
    {
        m_probing = false;
        if (m_prober.joinable())
            m_prober.join();
    }

    void measure()
    {
        stopProbing();
        sleepUntilNs(nowNs() + SettleNs);
        nlohmann::json result = m_options.frames > 0 ? sendPaced() : sendFlood();
        sendRun(Phase::End, EndFrames);
        say("result " + result.dump());
    }

private:
    void sendFrame(Phase phase, std::uint32_t index)
    {
        writeTag(m_publisher->media(), {m_options.epoch, phase, index});
        if (!m_options.dry)
            m_publisher->send(nowNs());
    }

    void probe()
    {
        std::uint64_t dueNs = nowNs();
        for (std::uint32_t index = 0; m_probing; index++)
        {
            sendFrame(Phase::Probe, index);
            dueNs = std::max(dueNs, nowNs()) + NsPerSecond / ProbeRateHz;
            sleepUntilNs(dueNs);
        }
    }

    // A frame that is late is not made up for by a burst: a real source does not do that either.
    void sendRun(Phase phase, std::uint32_t count)
    {
        const std::uint64_t periodNs = NsPerSecond / m_options.rateHz;
        std::uint64_t dueNs = nowNs();
        for (std::uint32_t index = 0; index < count; index++)
        {
            sendFrame(phase, index);
            dueNs = std::max(dueNs + periodNs, nowNs());
            sleepUntilNs(dueNs);
        }
    }

    nlohmann::json sendPaced()
    {
        sendRun(Phase::WarmUp, m_options.warmUpFrames);
        const Usage begin = Usage::now();
        sendRun(Phase::Measure, m_options.frames);
        nlohmann::json result = toJson(begin, Usage::now());
        result["sent"] = m_options.frames;
        return result;
    }

    nlohmann::json sendFlood()
    {
        for (std::uint32_t index = 0; index < m_options.warmUpFrames; index++)
            sendFrame(Phase::WarmUp, index);
        const Usage begin = Usage::now();
        const std::uint64_t endNs = begin.timeNs + m_options.floodMs * NsPerMs;
        std::uint32_t sent = 0;
        for (; nowNs() < endNs && sent < MaxFloodFrames; sent++)
            sendFrame(Phase::Measure, sent);
        nlohmann::json result = toJson(begin, Usage::now());
        result["sent"] = sent;
        return result;
    }

    EndpointOptions m_options;
    std::unique_ptr<Publisher> m_publisher;
    std::thread m_prober;
    std::atomic<bool> m_probing = true;
};

// What one subscriber has received. Written by the subscriber's thread; read when that has seen the
// end, or when the driver has given up waiting for it.
class Recorder
{
public:
    // onFirst gets the sender's epoch and the time of arrival.
    Recorder(
        const EndpointOptions& options,
        std::function<void(std::uint16_t, std::uint64_t)> onFirst,
        std::function<void()> onDone)
        : m_mediaBytes(options.link.mediaBytes),
          m_onFirst(std::move(onFirst)),
          m_onDone(std::move(onDone))
    {
        m_agesUs.reserve(options.frames > 0 ? options.frames : MaxFloodFrames);
    }

    void take(std::uint64_t sentNs, std::span<const std::uint8_t> media)
    {
        const std::uint64_t arrivedNs = nowNs();
        FrameTag tag{};
        if (!readTag(media, m_mediaBytes, tag))
        {
            m_corrupt++;
            return;
        }
        if (tag.epoch != m_epoch)
        {
            m_epoch = tag.epoch;
            m_onFirst(tag.epoch, arrivedNs);
        }
        if (tag.phase == Phase::Measure && !m_ended)
            record(sentNs, arrivedNs);
        else if (tag.phase == Phase::End && !m_ended)
        {
            m_end = Usage::now();
            m_ended = true;
            m_onDone();
        }
    }

    nlohmann::json report()
    {
        if (!m_ended.exchange(true))
            m_end = Usage::now();
        std::sort(m_agesUs.begin(), m_agesUs.end());
        nlohmann::json result = toJson(m_begin, m_end);
        result["received"] = m_agesUs.size();
        result["corrupt"] = m_corrupt;
        result["span_ns"] = m_lastNs - m_begin.timeNs;
        addAges(result);
        return result;
    }

private:
    void record(std::uint64_t sentNs, std::uint64_t arrivedNs)
    {
        if (m_agesUs.empty())
            m_begin = Usage::now();
        m_lastNs = arrivedNs;
        const double ageUs = static_cast<double>(arrivedNs - sentNs) / 1000;
        if (m_agesUs.size() < m_agesUs.capacity())
            m_agesUs.push_back(ageUs);
    }

    void addAges(nlohmann::json& result) const
    {
        static constexpr std::pair<const char*, double> Shares[] = {
            {"p10_us", 0.10}, {"p25_us", 0.25}, {"p50_us", 0.50},   {"p75_us", 0.75},
            {"p90_us", 0.90}, {"p99_us", 0.99}, {"p999_us", 0.999}, {"max_us", 1.0}};
        if (m_agesUs.empty())
            return;
        for (const auto& [name, share] : Shares)
            result[name] = percentile(m_agesUs, share);
    }

    std::size_t m_mediaBytes;
    std::function<void(std::uint16_t, std::uint64_t)> m_onFirst;
    std::function<void()> m_onDone;
    std::vector<double> m_agesUs;
    std::uint16_t m_epoch = 0;
    std::uint64_t m_lastNs = 0;
    std::uint64_t m_corrupt = 0;
    Usage m_begin;
    Usage m_end;
    std::atomic<bool> m_ended = false;
};

class ReceivingEnd
{
public:
    explicit ReceivingEnd(const EndpointOptions& options) : m_options(options)
    {
        for (std::size_t i = 0; i < options.objects; i++)
        {
            m_recorders.emplace_back(
                options,
                [this](std::uint16_t epoch, std::uint64_t arrivedNs) { onFirst(epoch, arrivedNs); },
                [this] { onDone(); });
            m_subscribers.push_back(makeSubscriber(options.link));
        }
    }

    bool start()
    {
        for (std::size_t i = 0; i < m_options.objects; i++)
        {
            Recorder& recorder = m_recorders[i];
            if (!m_subscribers[i]->start(
                    [&recorder](std::uint64_t sentNs, std::span<const std::uint8_t> media)
                    { recorder.take(sentNs, media); }))
                return false;
        }
        return true;
    }

    void report()
    {
        nlohmann::json results = nlohmann::json::array();
        for (Recorder& recorder : m_recorders)
            results.push_back(recorder.report());
        say("result " + results.dump());
    }

private:
    void onFirst(std::uint16_t epoch, std::uint64_t arrivedNs)
    {
        if (++m_firsts % m_options.objects == 0)
            say("first " + std::to_string(epoch) + " " + std::to_string(arrivedNs));
    }

    void onDone()
    {
        if (++m_dones == m_options.objects)
            say("done");
    }

    EndpointOptions m_options;
    std::deque<Recorder> m_recorders; // addresses stay
    std::vector<std::unique_ptr<Subscriber>> m_subscribers;
    std::atomic<std::size_t> m_firsts = 0;
    std::atomic<std::size_t> m_dones = 0;
};

int runSender(const EndpointOptions& options)
{
    auto end = std::make_unique<SendingEnd>(options);
    say("ready");
    for (std::string command; std::getline(std::cin, command);)
    {
        if (command == "open" && !end->openStream())
            return 1;
        if (command == "go")
            end->measure();
    }
    end->stopProbing();
    end.reset(); // removes what the transport has made in the file system
    return 0;
}

int runReceiver(const EndpointOptions& options)
{
    ReceivingEnd end(options);
    if (!end.start())
        return 1;
    say("ready");
    for (std::string command; std::getline(std::cin, command);)
    {
        if (command == "stop")
            end.report();
    }
    // The subscribers' threads are still at work, and stopping a receiver may take seconds.
    _exit(0);
}

void addOptions(CLI::App& app, EndpointOptions& options)
{
    app.add_option("--name", options.link.name)->required();
    app.add_option("--directory", options.link.directory)->required();
    app.add_option("--variant", options.link.variant);
    app.add_option("--bytes", options.link.mediaBytes)->required();
    app.add_option("--epoch", options.epoch);
    app.add_option("--rate", options.rateHz);
    app.add_option("--warm-up", options.warmUpFrames);
    app.add_option("--frames", options.frames);
    app.add_option("--flood-ms", options.floodMs);
    app.add_option("--objects", options.objects);
    app.add_flag("--dry", options.dry);
}

int runEndpoint(int argc, char** argv)
{
    CLI::App app("One end of a benchmark session; started by the benchmark programs.");
    EndpointOptions options;
    app.require_subcommand(1);
    const auto* send = app.add_subcommand("send")->fallthrough();
    app.add_subcommand("receive")->fallthrough();
    addOptions(app, options);
    CLI11_PARSE(app, argc, argv);
    if (options.link.mediaBytes < TagBytes || options.rateHz == 0)
        return 2;
    return send->parsed() ? runSender(options) : runReceiver(options);
}

} // namespace
} // namespace vlx::bench

int main(int argc, char** argv)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    signal(SIGPIPE, SIG_IGN);
    // Leaves without destroying what detached threads still use.
    _exit(vlx::bench::runEndpoint(argc, argv));
}
