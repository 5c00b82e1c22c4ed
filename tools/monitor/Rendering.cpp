#include "Rendering.hpp"

#include <algorithm>
#include <cmath>
#include <functional>
#include <optional>

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
    switch (statistics.clock)
    {
    case Receiver::StreamClockType::Undetermined:
        return "-";
    case Receiver::StreamClockType::NoClock:
        return "none";
    case Receiver::StreamClockType::MonotonicSystemClock:
        return "sysclock";
    case Receiver::StreamClockType::SyncedNetClock:
        break;
    }
    if (!statistics.clockSynchronized)
        return "gstnetclock, not synchronised";
    return "gstnetclock, synchronised, offset " + toMilliseconds(statistics.clockOffsetNs);
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

/// One family of metrics, a sample for each stream.
struct Metric
{
    const char* name;
    const char* type;
    const char* help;
    std::function<std::optional<double>(const kit::ConsumerStatistics&)> get;
};

double toSeconds(std::int64_t nanoseconds)
{
    return static_cast<double>(nanoseconds) / 1e9;
}

std::function<std::optional<double>(const kit::ConsumerStatistics&)> makeAgeGetter(double fraction)
{
    return [fraction](const kit::ConsumerStatistics& statistics) -> std::optional<double>
    {
        const auto age = statistics.ages.getPercentile(fraction);
        return age ? std::optional<double>(toSeconds(*age)) : std::nullopt;
    };
}

template <class Member>
std::function<std::optional<double>(const kit::ConsumerStatistics&)> makeGetter(Member member)
{
    return [member](const kit::ConsumerStatistics& statistics)
    { return std::optional<double>(static_cast<double>(statistics.*member)); };
}

const std::vector<Metric>& getMetrics()
{
    using Statistics = kit::ConsumerStatistics;
    static const std::vector<Metric> metrics = {
        {"vlx_up", "gauge", "Whether the stream is joined",
         [](const Statistics& s) { return s.state == Receiver::State::Running ? 1.0 : 0.0; }},
        {"vlx_frames", "counter", "Frames received", makeGetter(&Statistics::frames)},
        {"vlx_bytes", "counter", "Bytes of media received", makeGetter(&Statistics::bytes)},
        {"vlx_gaps", "counter", "Gaps between frames", makeGetter(&Statistics::gaps)},
        {"vlx_gap_seconds", "counter", "Length of all gaps",
         [](const Statistics& s) { return static_cast<double>(s.gapNs) / 1e9; }},
        {"vlx_sequences", "counter", "Sequences announced", makeGetter(&Statistics::sequences)},
        {"vlx_reconnects", "counter", "Connections after the first",
         makeGetter(&Statistics::reconnects)},
        {"vlx_stalls", "counter", "Connections given up without frames",
         makeGetter(&Statistics::stalls)},
        {"vlx_age_median_seconds", "gauge", "Median age of frames on arrival", makeAgeGetter(0.5)},
        {"vlx_age_p99_seconds", "gauge", "99th percentile of the age of frames on arrival",
         makeAgeGetter(0.99)},
        {"vlx_clock_synchronized", "gauge", "Whether the stream's clock can be told",
         [](const Statistics& s) { return s.clockSynchronized ? 1.0 : 0.0; }},
        {"vlx_clock_offset_seconds", "gauge", "The stream's clock less the monotonic clock",
         [](const Statistics& s) { return toSeconds(s.clockOffsetNs); }}};
    return metrics;
}

std::string quoteLabel(const std::string& text)
{
    std::string quoted;
    for (const char character : toPrintable(text))
    {
        if (character == '"' || character == '\\')
            quoted += '\\';
        quoted += character;
    }
    return '"' + quoted + '"';
}

} // unnamed namespace

std::string renderLine(const StreamSnapshot& snapshot)
{
    const kit::ConsumerStatistics& total = snapshot.total;
    std::string line =
        toPrintable(snapshot.name) + ": " + snapshot.state + ", " + describeStreamFormat(total) +
        ", " + describeRate(snapshot) + ", age " + describeAges(snapshot.ages) +
        formatText(
            ", gaps %llu, reconnects %llu, clock %s", static_cast<unsigned long long>(total.gaps),
            static_cast<unsigned long long>(total.reconnects), describeClockState(total).c_str());
    for (std::size_t i = 0; i < snapshot.levels.size(); ++i)
        line +=
            (i == 0 ? ", peak " : "/") + formatText("%.1f", toDecibels(snapshot.levels[i].peak));
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
        {"clock", toString(total.clock)},
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
            formatText("  sequences %llu", static_cast<unsigned long long>(total.sequences)),
        "  " + describeRate(snapshot) + "  age p50/p99/max " + describeAges(snapshot.ages),
        formatText(
            "  gaps %llu (%.1f ms)  reconnects %llu  stalls %llu",
            static_cast<unsigned long long>(total.gaps), static_cast<double>(total.gapNs) / 1e6,
            static_cast<unsigned long long>(total.reconnects),
            static_cast<unsigned long long>(total.stalls)),
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
    std::string text;
    for (const Metric& metric : getMetrics())
    {
        const std::string name = metric.name;
        const std::string type = metric.type;
        text += "# TYPE " + name + " " + type + "\n# HELP " + name + " " + metric.help + "\n";
        for (const StreamSnapshot& snapshot : snapshots)
        {
            if (const auto value = metric.get(snapshot.total))
                text += name + (type == "counter" ? "_total" : "") +
                        "{stream=" + quoteLabel(snapshot.name) + "} " +
                        formatText("%.17g", *value) + "\n";
        }
    }
    return text + "# EOF\n";
}

} // namespace vlx::tool
