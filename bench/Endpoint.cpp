/// One end of a session: sends or receives frames over the adapter that it is linked with. Its plan
/// is its argument, a JSON object.
///
/// A driver controls it by lines. Sender: "open" opens the stream and starts probe frames, and is
/// answered by "opened" and the time of the call; "go" runs the measurement and is answered by
/// "result". Receiver: prints "first", the sender's epoch and the time of arrival at the first
/// frame of each sender, and "done" at the end of the measurement; "stop" is answered by "result".
/// The process ends at the end of standard input, and when the driver dies.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <csignal>
#include <ctime>
#include <deque>
#include <iostream>
#include <limits>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>
#include <sys/prctl.h>
#include <unistd.h>

#include "Transport.hpp"
#include "support/AllocationCounter.hpp"

namespace vlx::bench
{

// One name in a line would be a page.
// clang-format off
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(
    Plan, name, directory, variant, bytes, role, epoch, rate, warmup, frames, flood, objects, dry)
// clang-format on

namespace
{

using namespace std::chrono_literals;
using nlohmann::json;

constexpr std::uint64_t NsPerMs = 1'000'000;
constexpr std::uint64_t NsPerClock = NsPerSecond / CLOCKS_PER_SEC;
constexpr std::uint64_t SettleNs = 20 * NsPerMs;
constexpr std::uint64_t Never = std::numeric_limits<std::uint64_t>::max();
constexpr std::uint32_t EndFrames = 20;
constexpr std::uint32_t MaxFloodFrames = 8'000'000;

enum class Phase : std::uint16_t
{
    Probe,   // until every receiver is known to receive
    WarmUp,  // not recorded
    Measure, // recorded
    End,     // tells receivers that the stream ends
};

// Identifies a frame. The last byte of its media data repeats that of the index, to detect a
// truncated frame.
struct FrameTag
{
    std::uint16_t epoch;
    Phase phase;
    std::uint32_t index; // within the phase, from 0
};
static_assert(sizeof(FrameTag) == TagBytes);

using Clock = std::chrono::steady_clock; // that all processes of the machine share

std::uint64_t nowNs()
{
    return static_cast<std::uint64_t>(Clock::now().time_since_epoch() / 1ns);
}

void sleepUntilNs(std::uint64_t deadlineNs)
{
    std::this_thread::sleep_until(Clock::time_point(std::chrono::nanoseconds(deadlineNs)));
}

void say(const std::string& line)
{
    std::cout << line + "\n" << std::flush;
}

// Resources that this process has used so far.
struct Usage
{
    std::uint64_t timeNs = 0;
    std::uint64_t cpuNs = 0;
    std::uint64_t allocations = 0;

    static Usage now()
    {
        return {
            nowNs(), static_cast<std::uint64_t>(std::clock()) * NsPerClock,
            testing::countAllocations()};
    }

    json since(const Usage& begin) const
    {
        return {
            {"wall_ns", timeNs - begin.timeNs},
            {"cpu_ns", cpuNs - begin.cpuNs},
            {"allocations", allocations - begin.allocations}};
    }
};

class SendingEnd
{
public:
    explicit SendingEnd(const Plan& plan)
        : m_plan(plan), m_packet(sizeof(PacketHeader) + plan.bytes)
    {
        const auto size = static_cast<std::uint32_t>(m_packet.size());
        std::memcpy(&m_packet[offsetof(PacketHeader, packetBytes)], &size, sizeof size);
    }

    void open()
    {
        const std::uint64_t calledNs = nowNs();
        m_send = openStream(m_plan);
        m_prober = std::thread(
            [this] { sendRun(Phase::Probe, MaxFloodFrames, NsPerSecond / m_plan.rate); });
        say("opened " + std::to_string(calledNs));
    }

    void measure()
    {
        stopProbing();
        sleepUntilNs(nowNs() + SettleNs);
        const bool flood = m_plan.frames == 0;
        const std::uint64_t periodNs = NsPerSecond / m_plan.rate;
        const std::uint32_t count = flood ? MaxFloodFrames : m_plan.frames;
        sendRun(Phase::WarmUp, m_plan.warmup, flood ? 0 : periodNs);
        const Usage begin = Usage::now();
        const std::uint64_t endNs = flood ? begin.timeNs + m_plan.flood * NsPerMs : Never;
        const std::uint32_t sent = sendRun(Phase::Measure, count, flood ? 0 : periodNs, endNs);
        json result = Usage::now().since(begin);
        result["sent"] = sent;
        sendRun(Phase::End, EndFrames, periodNs);
        say("result " + result.dump());
    }

    void stopProbing()
    {
        m_probing = false;
        if (m_prober.joinable())
            m_prober.join();
    }

private:
    // Sends until the count or the time is reached. A frame that is late is not made up for by a
    // burst: a real source does not do that either.
    // @param periodNs  0: as fast as possible
    // @return frames sent
    std::uint32_t
    sendRun(Phase phase, std::uint32_t count, std::uint64_t periodNs, std::uint64_t endNs = Never)
    {
        std::uint32_t index = 0;
        std::uint64_t now = nowNs();
        for (std::uint64_t dueNs = now; index < count && now < endNs; now = nowNs())
        {
            if (phase == Phase::Probe && !m_probing)
                break;
            sendFrame(phase, index++);
            if (periodNs > 0)
                sleepUntilNs(dueNs = std::max(dueNs + periodNs, nowNs()));
        }
        return index;
    }

    void sendFrame(Phase phase, std::uint32_t index)
    {
        const FrameTag tag{m_plan.epoch, phase, index};
        std::memcpy(&m_packet[sizeof(PacketHeader)], &tag, sizeof tag);
        m_packet.back() = static_cast<std::uint8_t>(index);
        const std::uint64_t timestampNs = nowNs();
        std::memcpy(m_packet.data(), &timestampNs, sizeof timestampNs);
        if (!m_plan.dry)
            m_send(timestampNs, m_packet);
    }

    Plan m_plan;
    std::vector<std::uint8_t> m_packet;
    SendFrame m_send;
    std::thread m_prober;
    std::atomic<bool> m_probing = true;
};

// Results of one receiver. Written by the receiver's thread; read when that thread has seen the
// end, or when the driver has stopped waiting for it.
class Recorder
{
public:
    explicit Recorder(const Plan& plan) : m_mediaBytes(plan.bytes)
    {
        m_agesUs.reserve(plan.frames > 0 ? plan.frames : MaxFloodFrames);
    }

    void take(std::uint64_t sentNs, Bytes media)
    {
        const std::uint64_t arrivedNs = nowNs();
        FrameTag tag{};
        if (media.size() == m_mediaBytes)
            std::memcpy(&tag, media.data(), sizeof tag);
        if (media.size() != m_mediaBytes || media.back() != static_cast<std::uint8_t>(tag.index))
        {
            m_corrupt++;
            return;
        }
        if (tag.epoch != m_epoch)
        {
            m_epoch = tag.epoch;
            say("first " + std::to_string(tag.epoch) + " " + std::to_string(arrivedNs));
        }
        if (tag.phase == Phase::Measure && !m_ended && m_agesUs.size() < m_agesUs.capacity())
        {
            if (m_agesUs.empty())
                m_begin = Usage::now();
            m_lastNs = arrivedNs;
            m_agesUs.push_back(static_cast<double>(arrivedNs - sentNs) / 1000);
        }
        else if (tag.phase == Phase::End && !m_ended)
        {
            m_end = Usage::now();
            m_ended = true;
            say("done");
        }
    }

    json report()
    {
        static constexpr std::pair<const char*, double> Shares[] = {
            {"p10_us", 0.10}, {"p25_us", 0.25}, {"p50_us", 0.50},   {"p75_us", 0.75},
            {"p90_us", 0.90}, {"p99_us", 0.99}, {"p999_us", 0.999}, {"max_us", 1.0}};
        if (!m_ended.exchange(true))
            m_end = Usage::now();
        std::sort(m_agesUs.begin(), m_agesUs.end());
        json result = m_end.since(m_begin);
        result["received"] = m_agesUs.size();
        result["corrupt"] = m_corrupt;
        result["span_ns"] = m_lastNs - m_begin.timeNs;
        for (const auto& [name, share] : Shares)
        {
            // The smallest age that at least this share of all ages does not exceed.
            const double rank = std::ceil(share * static_cast<double>(m_agesUs.size()));
            if (rank > 0)
                result[name] = m_agesUs[static_cast<std::size_t>(rank) - 1];
        }
        return result;
    }

private:
    std::size_t m_mediaBytes;
    std::vector<double> m_agesUs;
    std::uint16_t m_epoch = 0;
    std::uint64_t m_lastNs = 0;
    std::uint64_t m_corrupt = 0;
    Usage m_begin;
    Usage m_end;
    std::atomic<bool> m_ended = false;
};

void runSender(const Plan& plan)
{
    SendingEnd end(plan);
    say("ready");
    for (std::string command; std::getline(std::cin, command);)
    {
        if (command == "open")
            end.open();
        else
            end.measure();
    }
    end.stopProbing();
}

void runReceiver(const Plan& plan)
{
    std::deque<Recorder> recorders; // addresses stay
    for (std::size_t i = 0; i < plan.objects; i++)
    {
        Recorder& recorder = recorders.emplace_back(plan);
        startReceiving(
            plan, [&recorder](std::uint64_t sentNs, Bytes media) { recorder.take(sentNs, media); });
    }
    say("ready");
    for (std::string command; std::getline(std::cin, command);)
    {
        for (Recorder& recorder : recorders)
            say("result " + recorder.report().dump());
    }
}

} // namespace
} // namespace vlx::bench

int main(int argc, char** argv)
{
    using namespace vlx::bench;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    signal(SIGPIPE, SIG_IGN);
    const Plan plan = json::parse(argc == 2 ? argv[1] : "{}").get<Plan>();
    if (plan.name.empty() || plan.bytes < sizeof(FrameTag) || plan.rate == 0)
        return 2;
    plan.role == "send" ? runSender(plan) : runReceiver(plan);
    // The receiving threads are still running, and stopping them may take seconds.
    _exit(0);
}
