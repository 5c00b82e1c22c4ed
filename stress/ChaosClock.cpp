// The network clock's provider stops, jumps, is not there, or talks rubbish.

#include <array>
#include <cmath>
#include <random>

#include <arpa/inet.h>
#include <endian.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <miscUtils/MiscUtils.hpp>

#include "Chaos.hpp"

namespace vlx::stress
{

namespace
{

constexpr double MaxErrorMs = 5;
constexpr int RubbishPackets = 10; // for each request
constexpr int SyncLimitMs = 6'000; // the first use initialises GStreamer

/// Answers clock requests on a UDP port of the loopback.
class ClockProvider
{
public:
    enum class Mode
    {
        Honest,
        Silent,
        Hostile, ///< a well-formed answer with a random time, and packets of random bytes and size
    };

    ClockProvider() : m_fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        if (::bind(m_fd, reinterpret_cast<const sockaddr*>(&address), length) == 0 &&
            ::getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &length) == 0)
            m_port = ntohs(address.sin_port);
        m_thread = std::thread([this] { loop(); });
    }

    ~ClockProvider()
    {
        m_done = true;
        m_thread.join();
        ::close(m_fd);
    }

    ClockProvider(const ClockProvider&) = delete;
    ClockProvider& operator=(const ClockProvider&) = delete;

    std::uint16_t getPort() const
    {
        return m_port;
    }

    std::atomic<Mode> mode = Mode::Honest;
    std::atomic<std::int64_t> offsetNs = 0; ///< of the provider's time from the system's

private:
    /// The two big-endian times of requests and answers: the client's and the provider's.
    using Packet = std::array<std::uint64_t, 2>;

    void loop()
    {
        while (!m_done)
        {
            pollfd entry = {m_fd, POLLIN, 0};
            if (::poll(&entry, 1, 50) <= 0)
                continue;
            Packet packet = {};
            sockaddr_in client = {};
            socklen_t length = sizeof(client);
            auto* const address = reinterpret_cast<sockaddr*>(&client);
            ::recvfrom(m_fd, packet.data(), sizeof(packet), 0, address, &length);
            const bool isHostile = mode == Mode::Hostile;
            const TimeValue now = miscUtils::getMonotonicSysclockTime();
            packet[1] =
                isHostile ? m_random() : htobe64(now + static_cast<std::uint64_t>(offsetNs));
            if (mode != Mode::Silent)
                ::sendto(m_fd, packet.data(), sizeof(packet), 0, address, length);
            for (int i = 0; isHostile && i < RubbishPackets; ++i)
            {
                packet = {m_random(), m_random()};
                // Every other packet has the right size.
                const std::size_t size = i % 2 == 0 ? sizeof(packet) : m_random() % sizeof(packet);
                ::sendto(m_fd, packet.data(), size, 0, address, length);
            }
        }
    }

    const int m_fd;
    std::uint16_t m_port = 0;
    std::atomic<bool> m_done = false;
    std::mt19937_64 m_random; // the thread only
    std::thread m_thread;
};

/// Starts a stream on the provider's clock, with two receivers.
bool beginWithClock(Bystanders& stream, const ChaosContext& context, std::uint16_t port)
{
    // GStreamer would otherwise look through all of its plug-ins in each worker.
    ::setenv("GST_REGISTRY", (context.directory + "/registry.bin").c_str(), 1);
    WorkerConfig sender = makeWorker(Role::Sender);
    sender.clockPort = port;
    return stream.begin(2, sender);
}

/// @return largest deviation of a receiver's stream time from the provider's, in milliseconds
double getErrorMs(Bystanders& stream, std::int64_t offsetNs)
{
    double error = 0;
    for (const std::size_t index : stream.receivers)
    {
        const Slot& slot = stream.fleet[index];
        const auto streamTime = static_cast<double>(slot.streamTime);
        const auto expected =
            static_cast<double>(slot.streamTimeAt) + static_cast<double>(offsetNs);
        error = std::max(error, std::abs(streamTime - expected) / static_cast<double>(NsPerMs));
    }
    return error;
}

/// @return milliseconds until every receiver's time is right, and stays so for 200 ms
std::optional<double> waitForSync(Bystanders& stream, std::int64_t offsetNs)
{
    const TimeValue start = miscUtils::getMonotonicSysclockTime();
    TimeValue lastWrong = start;
    const bool isSynced = waitUntil(
        SyncLimitMs,
        [&]
        {
            const TimeValue now = miscUtils::getMonotonicSysclockTime();
            if (getErrorMs(stream, offsetNs) > MaxErrorMs)
                lastWrong = now;
            return now - lastWrong > 200 * NsPerMs;
        });
    return isSynced ? std::optional(toMs(lastWrong - start)) : std::nullopt;
}

constexpr std::int64_t BootOffsetNs = 5'000 * static_cast<std::int64_t>(NsPerSecond);
constexpr std::int64_t JumpNs = 1'000 * static_cast<std::int64_t>(NsPerSecond);

/// Synchronised, then `fault` for a while, then an honest provider with another offset: the time
/// must come right again, and no frame may be lost through all of it.
Outcome runClockFault(const ChaosContext& context, ClockProvider::Mode fault, std::int64_t jumpNs)
{
    constexpr int FaultMs = 4'000;
    ClockProvider provider;
    provider.offsetNs = BootOffsetNs;
    Bystanders stream(context);
    if (!beginWithClock(stream, context, provider.getPort()))
        return fail(NoStream);
    if (!waitForSync(stream, BootOffsetNs))
        return fail("not synchronised within 6 s");

    provider.mode = fault;
    letPass(FaultMs);
    const double silentError = getErrorMs(stream, BootOffsetNs);
    provider.offsetNs = BootOffsetNs + jumpNs;
    provider.mode = ClockProvider::Mode::Honest;
    const auto again = waitForSync(stream, BootOffsetNs + jumpNs);

    const bool isSilent = fault == ClockProvider::Mode::Silent;
    const bool deliver = stream.areDelivering();
    const LossSummary losses = stream.getLosses();
    const bool isOk =
        again && deliver && losses.unexplained == 0 && (!isSilent || silentError <= 4 * MaxErrorMs);
    std::string figure = again ? format("right after %.0f ms", *again) : "wrong for over 6 s";
    if (isSilent)
        figure += format("; off by %.2f ms while silent", silentError);
    return {isOk ? Verdict::Ok : Verdict::Failed, figure + "; frames: " + losses.toText()};
}

Outcome missProvider(const ChaosContext& context)
{
    const std::uint16_t unusedPort = ClockProvider().getPort();
    Bystanders stream(context);
    if (!beginWithClock(stream, context, unusedPort))
        return fail(NoStream);
    letPass(2'000);
    const TimeValue streamTime = stream.fleet[FirstReceiverSlot].streamTime;
    const bool deliver = stream.areDelivering();
    const LossSummary losses = stream.getLosses();
    const bool isOk = streamTime == 0 && deliver && losses.unexplained == 0;
    return {
        isOk ? Verdict::Ok : Verdict::Failed,
        format("stream time %lu; frames: ", streamTime) + losses.toText()};
}

using Context = const ChaosContext&;
using Mode = ClockProvider::Mode;

constexpr Scenario ClockScenarios[] = {
    {"clock-stopped", "clock provider silent for 4 s", "time goes on; frames undisturbed",
     [](Context context) { return runClockFault(context, Mode::Silent, 0); }},
    {"clock-rebooted", "clock provider back 1000 s lower", "right within 6 s; frames undisturbed",
     [](Context context) { return runClockFault(context, Mode::Silent, -JumpNs); }},
    {"clock-ahead", "clock provider jumps 1000 s ahead", "right within 6 s; frames undisturbed",
     [](Context context) { return runClockFault(context, Mode::Honest, JumpNs); }},
    {"clock-unreachable", "no clock provider at the announced port",
     "stream time 0; frames undisturbed", missProvider},
    {"clock-hostile", "clock provider answers with random times and UDP",
     "right afterwards; frames undisturbed",
     [](Context context) { return runClockFault(context, Mode::Hostile, 0); }},
};

} // namespace

std::span<const Scenario> getClockScenarios()
{
    return ClockScenarios;
}

} // namespace vlx::stress
