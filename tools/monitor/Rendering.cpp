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

/// One value of a stream, as JSON and as a metric.
struct Field
{
    const char* key; // of the JSON object; nullptr: only a metric
    nlohmann::ordered_json value;
    const char* metric = nullptr;
    const char* help = nullptr;
    bool isCounter = false;
    double scale = 1; // to the metric's unit
};

std::vector<Field> listFields(const StreamSnapshot& snapshot)
{
    constexpr bool IsCounter = true;
    constexpr double Nanoseconds = 1e-9;
    const kit::ConsumerStatistics& total = snapshot.total;
    return {
        {"joined", total.state == Receiver::State::Running, "vlx_up",
         "Whether the stream is joined"},
        {"seconds", snapshot.seconds},
        {"frames", snapshot.frames},
        {"bytes", snapshot.bytes},
        {"total_frames", total.frames, "vlx_frames", "Frames received", IsCounter},
        {"total_bytes", total.bytes, "vlx_bytes", "Bytes of media received", IsCounter},
        {"gaps", total.gaps, "vlx_gaps", "Gaps between frames", IsCounter},
        {"gap_ns", total.gapNs, "vlx_gap_seconds", "Length of all gaps", IsCounter, Nanoseconds},
        {"sequences", total.sequences, "vlx_sequences", "Sequences announced", IsCounter},
        {"reconnects", total.reconnects, "vlx_reconnects", "Connections after the first",
         IsCounter},
        {"stalls", total.stalls, "vlx_stalls", "Connections given up without frames", IsCounter},
        {"join_ns", total.joinNs},
        {nullptr, toJson(snapshot.totalAges.getPercentile(0.5)), "vlx_age_median_seconds",
         "Median age of frames on arrival", false, Nanoseconds},
        {nullptr, toJson(snapshot.totalAges.getPercentile(0.99)), "vlx_age_p99_seconds",
         "99th percentile of the age of frames on arrival", false, Nanoseconds},
        {"clock", toClockName(total.clock)},
        {"clock_synchronized", total.clockSynchronized, "vlx_clock_synchronized",
         "Whether the stream's clock is synchronised"},
        {"clock_offset_ns", total.clockOffsetNs, "vlx_clock_offset_seconds",
         "Offset of the stream's clock to the monotonic clock", false, Nanoseconds}};
}

/// @return what is shown of a stream, by the lines of a screen
std::vector<std::vector<std::string>> listTexts(const StreamSnapshot& snapshot)
{
    const kit::ConsumerStatistics& total = snapshot.total;
    const auto count = [](const char* name, std::uint64_t number)
    { return name + (" " + std::to_string(number)); };
    if (snapshot.announced && !snapshot.announced->probe.initialInfo)
        return {{toPrintable(snapshot.name), snapshot.state}};
    if (snapshot.announced)
        return {
            {toPrintable(snapshot.name), snapshot.state, describeFormat(snapshot.announced->probe),
             count("receivers", snapshot.announced->entry.receivers)},
            {"clock " + describeClock(snapshot.announced->probe)}};
    return {
        {toPrintable(snapshot.name), snapshot.state,
         snapshot.codec         ? toShortText(*snapshot.codec)
         : total.sequences == 0 ? "-"
                                : toShortText(total.format),
         count("sequences", total.sequences)},
        {describeRate(snapshot), "age p50/p99/max " + describeAges(snapshot.ages)},
        {count("gaps", total.gaps) +
             formatText(" (%.1f ms)", static_cast<double>(total.gapNs) / 1e6),
         count("reconnects", total.reconnects), count("stalls", total.stalls)},
        {"clock " + describeClockState(total)}};
}

} // unnamed namespace

std::string renderLine(const StreamSnapshot& snapshot)
{
    std::string line;
    for (const auto& texts : listTexts(snapshot))
    {
        for (const std::string& text : texts)
            line += (line.empty() ? "" : line == toPrintable(snapshot.name) ? ": " : ", ") + text;
    }
    const char* separator = ", peak ";
    for (const ChannelLevel& level : snapshot.levels)
        line += std::exchange(separator, "/") + formatText("%.1f", toDecibels(level.peak));
    return snapshot.levels.empty() ? line : line + " dBFS";
}

nlohmann::ordered_json renderJson(const StreamSnapshot& snapshot)
{
    nlohmann::ordered_json json = {{"name", snapshot.name}, {"state", snapshot.state}};
    if (snapshot.announced)
    {
        json["joined"] = false;
        json.update(toJson(*snapshot.announced));
        return json;
    }
    for (const Field& field : listFields(snapshot))
    {
        if (field.key != nullptr)
            json[field.key] = field.value;
    }
    addAges(json, snapshot.ages);
    if (snapshot.codec)
        addFormat(json, *snapshot.codec);
    else if (snapshot.total.sequences > 0)
        addFormat(json, snapshot.total.format);
    json["levels"] = nlohmann::ordered_json::array();
    for (const ChannelLevel& level : snapshot.levels)
        json["levels"].push_back(
            {{"peak_dbfs", toDecibels(level.peak)},
             {"rms_dbfs", toDecibels(level.rms)},
             {"held_peak_dbfs", toDecibels(level.heldPeak)}});
    return json;
}

std::vector<std::string>
renderScreen(const StreamSnapshot& snapshot, std::size_t width, bool colored)
{
    std::vector<std::string> lines;
    for (const auto& texts : listTexts(snapshot))
    {
        std::string& line = lines.emplace_back();
        for (const std::string& text : texts)
            line += (lines.size() == 1 && line.empty() ? "" : "  ") + text;
    }
    if (snapshot.total.state != Receiver::State::Running && !snapshot.notice.empty())
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
    const std::vector<Field> families = listFields({});
    for (std::size_t i = 0; i < families.size(); ++i)
    {
        const Field& family = families[i];
        if (family.metric == nullptr)
            continue;
        text << "# TYPE " << family.metric << (family.isCounter ? " counter" : " gauge")
             << "\n# HELP " << family.metric << " " << family.help << "\n";
        for (const StreamSnapshot& snapshot : snapshots)
        {
            const nlohmann::ordered_json value = listFields(snapshot)[i].value;
            if (value.is_null())
                continue;
            text << family.metric << (family.isCounter ? "_total" : "")
                 << "{stream=" << std::quoted(toPrintable(snapshot.name)) << "} "
                 << (value.is_boolean() ? double(value.get<bool>())
                                        : value.get<double>() * family.scale)
                 << "\n";
        }
    }
    text << "# EOF\n";
    return text.str();
}

} // namespace vlx::tool
