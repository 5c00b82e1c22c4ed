#include <algorithm>
#include <chrono>
#include <cstdio>
#include <optional>
#include <utility>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include "Commands.hpp"
#include "RoundTripProbe.hpp"
#include "common/ClockProvider.hpp"
#include "common/CommonOptions.hpp"
#include "common/Duration.hpp"
#include "common/ExitCodes.hpp"
#include "common/Messages.hpp"
#include "common/NetClock.hpp"
#include "common/ReportFile.hpp"
#include "common/SenderReport.hpp"
#include "common/StopSignal.hpp"
#include "common/Text.hpp"

namespace vlx::tool
{

namespace
{

struct ClockOptions
{
    bool watch = false; // otherwise it is served
    std::string address = "127.0.0.1";
    std::uint16_t port = 0; // 0: any that is free
    bool json = false;
    OptionalDuration duration;
    OptionalDuration timeout;
};

using SteadyClock = std::chrono::steady_clock;

constexpr auto CheckInterval = std::chrono::milliseconds(50);
constexpr auto LineInterval = std::chrono::seconds(1);
constexpr auto ScreenInterval = std::chrono::milliseconds(200);

// Packets in an interval: more than stray ones.
constexpr std::uint32_t ManyDropped = 1000;
constexpr auto LoadInterval = std::chrono::seconds(1);

/// Reports when many packets begin to be dropped, and when that has ended.
class LoadWatch
{
public:
    explicit LoadWatch(const ClockProvider& provider) : m_provider(provider) {}

    /// Called once in each interval.
    void look()
    {
        const std::uint32_t total = m_provider.getNumDropped();
        const std::uint32_t dropped = total - std::exchange(m_dropped, total);
        if (!m_isLoaded && dropped >= ManyDropped)
            printNotice(
                "under load: " + std::to_string(dropped) +
                " packets dropped within a second; clocks may take longer to synchronise");
        else if (m_isLoaded && dropped == 0)
            printNotice("no longer under load");
        m_isLoaded = m_isLoaded ? dropped > 0 : dropped >= ManyDropped;
    }

private:
    const ClockProvider& m_provider;
    std::uint32_t m_dropped = 0; // so far
    bool m_isLoaded = false;
};

void serve(const ClockOptions& options, const StopSignal& stop)
{
    const ClockProvider provider(options.address, options.port);
    // As "vlx clock watch" takes them.
    std::printf("%s %u\n", options.address.c_str(), provider.getPort());
    flushOutput();
    LoadWatch load(provider);
    while (!stop.waitUntil(SteadyClock::now() + LoadInterval))
        load.look();
}

/// Follows a clock and shows how that goes.
class ClockWatch
{
public:
    ClockWatch(const ClockOptions& options, const StopSignal& stop)
        : m_options(options),
          m_stop(stop),
          m_onScreen(!options.json && isLiveTerminal(STDOUT_FILENO) && showsProgress())
    {
    }

    void run()
    {
        follow(m_clock, m_options.address, m_options.port);
        const auto begin = SteadyClock::now();
        const auto interval = m_onScreen ? SteadyClock::duration(ScreenInterval) : LineInterval;
        auto lineDue = begin + interval;
        while (!m_stop.waitUntil(SteadyClock::now() + CheckInterval))
        {
            tellChange();
            const auto now = SteadyClock::now();
            if (now >= lineDue)
            {
                show();
                lineDue = std::max(lineDue + interval, now);
            }
            if (m_options.timeout && !m_wasSynchronized && now - begin >= *m_options.timeout)
                throw CommandFailure(
                    ExitCode::TimedOut, "not synchronised within " + toText(*m_options.timeout));
            if (m_options.duration && now - begin >= *m_options.duration)
                break;
        }
        finishProgress();
    }

private:
    void tellChange()
    {
        const bool isSynchronized = m_clock.isSynchronized();
        if (isSynchronized == m_isSynchronized)
            return;
        m_isSynchronized = isSynchronized;
        printNotice(
            !isSynchronized     ? "synchronisation lost"
            : m_wasSynchronized ? "synchronisation regained"
                                : "synchronised");
        m_wasSynchronized = true;
    }

    void show()
    {
        std::optional<std::int64_t> offset;
        std::optional<std::int64_t> roundTrip;
        if (m_isSynchronized)
        {
            offset = measureOffset(m_clock);
            if (!m_probe)
                m_probe.emplace(m_options.address, m_options.port);
            roundTrip = m_probe->measure(m_stop);
        }
        if (m_options.json)
        {
            writeJson(
                "-",
                {{"address", m_options.address},
                 {"port", m_options.port},
                 {"synchronized", m_isSynchronized},
                 {"offset_ns", toJson(offset)},
                 {"round_trip_ns", toJson(roundTrip)}},
                -1);
        }
        else if (m_onScreen)
        {
            printProgress(describe(offset, roundTrip));
        }
        else
        {
            std::puts(describe(offset, roundTrip).c_str());
        }
        flushOutput();
    }

    std::string describe(
        const std::optional<std::int64_t>& offset,
        const std::optional<std::int64_t>& roundTrip) const
    {
        if (!m_isSynchronized)
            return "not synchronised";
        return "synchronised, offset " + (offset ? toMilliseconds(*offset) : "-") +
               ", round trip " + (roundTrip ? toMilliseconds(*roundTrip) : "-");
    }

    const ClockOptions& m_options;
    const StopSignal& m_stop;
    const bool m_onScreen;
    std::optional<RoundTripProbe> m_probe; // once the clock has been found
    bool m_isSynchronized = false;
    bool m_wasSynchronized = false; // at any time
    miscUtils::SyncedNetClock m_clock;
};

CLI::App* addCommand(CLI::App& program, ClockOptions& options)
{
    CLI::App* const command = program.add_subcommand(
        "clock", "Serve this machine's clock over the network, or watch a network clock");
    command->require_subcommand(1);

    CLI::App* const serving = command->add_subcommand(
        "serve", "Serve this machine's monotonic clock, and print its address and port");
    serving
        ->add_option(
            "--address", options.address,
            "Numeric address to serve on; 0.0.0.0 for all of this machine [127.0.0.1]")
        ->type_name("ADDRESS");
    addPortOption(*serving, "--port", options.port, "UDP port [any free port]");

    CLI::App* const watching = command->add_subcommand(
        "watch",
        "Show whether a network clock can be followed, its offset and its round-trip time");
    watching->add_option("ADDRESS", options.address, "Address of the clock")
        ->type_name("")
        ->required();
    addPortOption(*watching, "PORT", options.port, "UDP port of the clock")
        ->type_name("")
        ->required();
    watching->add_flag("--json", options.json, "Print a JSON object each second");
    addDurationOption(*watching, "-d,--duration", options.duration, "Exit after this time");
    addTimeoutOption(
        *watching, options.timeout, "Exit with code 3 if not synchronised within this time");
    watching->callback([&options] { options.watch = true; });
    return command;
}

ExitCode runClock(const ClockOptions& options, StopSignal& stop)
{
    if (options.watch)
        ClockWatch(options, stop).run();
    else
        serve(options, stop);
    return ExitCode::Done;
}

} // unnamed namespace

Subcommand makeClockCommand()
{
    return makeSubcommand(addCommand, runClock);
}

} // namespace vlx::tool
