#include "Rendering.hpp"

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <limits>
#include <optional>
#include <sstream>
#include <utility>

#include <nlohmann/json.hpp>

#include <vlx/VlxReceiver.hpp>

#include "audio/PcmCodec.hpp"
#include "common/SenderReport.hpp"
#include "common/Text.hpp"

namespace vlx::tool
{

namespace
{

// The bars show this range.
constexpr double BarBottomDecibels = -60;
constexpr double YellowDecibels = -12;
constexpr double RedDecibels = -3;

constexpr const char* Green = "\033[32m";
constexpr const char* Yellow = "\033[33m";
constexpr const char* Red = "\033[31m";
constexpr const char* Bold = "\033[1m";
constexpr const char* Plain = "\033[0m";

std::string describeAges(const kit::AgeHistogram& ages)
{
    if (ages.getCount() == 0)
        return "-";
    const auto toMs = [](const std::optional<std::int64_t>& age)
    { return static_cast<double>(age.value_or(0)) / 1e6; };
    return formatText(
        "%.2f/%.2f/%.2f ms", toMs(ages.getPercentile(0.5)), toMs(ages.getPercentile(0.99)),
        toMs(ages.getMax()));
}

std::string describeClockState(const kit::ConsumerStatistics& statistics)
{
    std::string text = toClockName(statistics.clock);
    if (statistics.clock == Receiver::StreamClockType::SyncedNetClock)
        text += statistics.clockSynchronized
                    ? ", synchronised, offset " + toMilliseconds(statistics.clockOffsetNs)
                    : ", not synchronised";
    return text;
}

std::string describeRate(const StreamSnapshot& snapshot)
{
    const double seconds = std::max(snapshot.seconds, 1e-3);
    return formatText(
        "%.1f frames/s %.1f kB/s", static_cast<double>(snapshot.frames) / seconds,
        static_cast<double>(snapshot.bytes) / seconds / 1e3);
}

std::string describeStreamFormat(const kit::ConsumerStatistics& statistics)
{
    return statistics.sequences == 0 ? "-" : toShortText(statistics.format);
}

const char* getBarColor(double decibels)
{
    return decibels > RedDecibels ? Red : decibels > YellowDecibels ? Yellow : Green;
}

/// RMS as a bar, the peak as '-' beyond it, the held peak as '|'.
std::string renderBar(const ChannelLevel& level, std::size_t length, bool colored)
{
    const auto toColumn = [length](double value)
    {
        const double part = 1 - toDecibels(value) / BarBottomDecibels;
        return static_cast<std::size_t>(
            std::lround(std::clamp(part, 0.0, 1.0) * static_cast<double>(length)));
    };
    std::string bar(length, ' ');
    std::fill_n(bar.begin(), toColumn(level.peak), '-');
    std::fill_n(bar.begin(), toColumn(level.rms), '#');
    if (const std::size_t held = toColumn(level.heldPeak); held > 0)
        bar[held - 1] = '|';
    return colored ? getBarColor(toDecibels(level.heldPeak)) + bar + Plain : bar;
}

/// A sample of one stream, and what its family is.
struct Metric
{
    const char* name;
    const char* help;
    std::optional<double> value;
    bool isCounter = false;
};

std::vector<Metric> listMetrics(const kit::ConsumerStatistics& total, const kit::AgeHistogram& ages)
{
    constexpr bool IsCounter = true;
    const auto toDouble = [](std::uint64_t count) { return static_cast<double>(count); };
    const auto getAge = [&](double fraction)
    {
        const auto age = ages.getPercentile(fraction);
        return age ? std::optional(static_cast<double>(*age) / 1e9) : std::nullopt;
    };
    return {
        {"vlx_up", "Whether the stream is joined",
         total.state == Receiver::State::Running ? 1.0 : 0.0},
        {"vlx_frames", "Frames received", toDouble(total.frames), IsCounter},
        {"vlx_bytes", "Bytes of media received", toDouble(total.bytes), IsCounter},
        {"vlx_gaps", "Gaps between frames", toDouble(total.gaps), IsCounter},
        {"vlx_gap_seconds", "Length of all gaps", toDouble(total.gapNs) / 1e9, IsCounter},
        {"vlx_sequences", "Sequences announced", toDouble(total.sequences), IsCounter},
        {"vlx_reconnects", "Connections after the first", toDouble(total.reconnects), IsCounter},
        {"vlx_stalls", "Connections given up without frames", toDouble(total.stalls), IsCounter},
        {"vlx_age_median_seconds", "Median age of frames on arrival", getAge(0.5)},
        {"vlx_age_p99_seconds", "99th percentile of the age of frames on arrival", getAge(0.99)},
        {"vlx_clock_synchronized", "Whether the stream's clock is synchronised",
         total.clockSynchronized ? 1.0 : 0.0},
        {"vlx_clock_offset_seconds", "Offset of the stream's clock to the monotonic clock",
         static_cast<double>(total.clockOffsetNs) / 1e9}};
}

} // unnamed namespace

std::string renderLine(const StreamSnapshot& snapshot)
{
    const kit::ConsumerStatistics& total = snapshot.total;
    std::string line = toPrintable(snapshot.name) + ": " + snapshot.state + ", " +
                       describeStreamFormat(total) + ", " + describeRate(snapshot) + ", age " +
                       describeAges(snapshot.ages) + ", gaps " + std::to_string(total.gaps) +
                       ", reconnects " + std::to_string(total.reconnects) + ", clock " +
                       describeClockState(total);
    const char* separator = ", peak ";
    for (const ChannelLevel& level : snapshot.levels)
        line += std::exchange(separator, "/") + formatText("%.1f", toDecibels(level.peak));
    return snapshot.levels.empty() ? line : line + " dBFS";
}

nlohmann::ordered_json renderJson(const StreamSnapshot& snapshot)
{
    const kit::ConsumerStatistics& total = snapshot.total;
    nlohmann::ordered_json json = {
        {"name", snapshot.name},
        {"state", snapshot.state},
        {"seconds", snapshot.seconds},
        {"frames", snapshot.frames},
        {"bytes", snapshot.bytes},
        {"total_frames", total.frames},
        {"total_bytes", total.bytes},
        {"sequences", total.sequences},
        {"gaps", total.gaps},
        {"gap_ns", total.gapNs},
        {"reconnects", total.reconnects},
        {"stalls", total.stalls},
        {"join_ns", total.joinNs},
        {"clock", toClockName(total.clock)},
        {"clock_synchronized", total.clockSynchronized},
        {"clock_offset_ns", total.clockOffsetNs}};
    addAges(json, snapshot.ages);
    if (total.sequences > 0)
        addFormat(json, total.format);
    nlohmann::ordered_json levels = nlohmann::ordered_json::array();
    for (const ChannelLevel& level : snapshot.levels)
        levels.push_back(
            {{"peak_dbfs", toDecibels(level.peak)},
             {"rms_dbfs", toDecibels(level.rms)},
             {"held_peak_dbfs", toDecibels(level.heldPeak)}});
    json["levels"] = std::move(levels);
    return json;
}

std::vector<std::string>
renderScreen(const StreamSnapshot& snapshot, std::size_t width, bool colored)
{
    const kit::ConsumerStatistics& total = snapshot.total;
    std::vector<std::string> lines = {
        toPrintable(snapshot.name) + "  " + snapshot.state + "  " + describeStreamFormat(total) +
            "  sequences " + std::to_string(total.sequences),
        "  " + describeRate(snapshot) + "  age p50/p99/max " + describeAges(snapshot.ages),
        "  gaps " + std::to_string(total.gaps) +
            formatText(" (%.1f ms)", static_cast<double>(total.gapNs) / 1e6) + "  reconnects " +
            std::to_string(total.reconnects) + "  stalls " + std::to_string(total.stalls),
        "  clock " + describeClockState(total)};
    if (total.state != Receiver::State::Running && !snapshot.notice.empty())
        lines.push_back("  " + toPrintable(snapshot.notice));
    for (std::string& line : lines)
        cutToWidth(line, width);
    if (colored)
        lines.front() = Bold + lines.front() + Plain;

    constexpr std::size_t NumbersLength = 34; // of a channel's line without its bar
    if (width <= NumbersLength)
        return lines;
    for (std::size_t i = 0; i < snapshot.levels.size(); ++i)
    {
        const ChannelLevel& level = snapshot.levels[i];
        lines.push_back(
            formatText("  %3zu ", i + 1) + renderBar(level, width - NumbersLength, colored) +
            formatText(
                " %6.1f peak %6.1f rms dBFS", toDecibels(level.heldPeak), toDecibels(level.rms)));
    }
    return lines;
}

std::string renderMetrics(const std::vector<StreamSnapshot>& snapshots)
{
    std::ostringstream text;
    text.precision(std::numeric_limits<double>::max_digits10);
    const auto families = listMetrics({}, {});
    for (std::size_t i = 0; i < families.size(); ++i)
    {
        const Metric& family = families[i];
        text << "# TYPE " << family.name << (family.isCounter ? " counter" : " gauge")
             << "\n# HELP " << family.name << " " << family.help << "\n";
        for (const StreamSnapshot& snapshot : snapshots)
        {
            if (const auto value = listMetrics(snapshot.total, snapshot.totalAges)[i].value)
                text << family.name << (family.isCounter ? "_total" : "")
                     << "{stream=" << std::quoted(toPrintable(snapshot.name)) << "} " << *value
                     << "\n";
        }
    }
    text << "# EOF\n";
    return text.str();
}

} // namespace vlx::tool
