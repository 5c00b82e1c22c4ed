/// Turns the raw data of a run into the summary, its tables and the data of its pictures.

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>

#include <CLI/CLI.hpp>

#include "support/Catalogue.hpp"
#include "support/Summaries.hpp"
#include "support/Targets.hpp"

namespace vlx::bench
{
namespace
{

constexpr unsigned PictureBytes = 1920;

struct ReportOptions
{
    std::string dataDirectory;
    std::string templatePath;
    std::string findingsPath;
    std::string output;
};

RunData readRun(const std::string& directory)
{
    const auto read = [&](const char* name)
    { return readRecords(directory + "/" + name + ".jsonl"); };
    return {read("age"), read("overload"), read("fanout"), read("join"), read("micro")};
}

std::string describePaths()
{
    Table table({"<path", "<id in the raw data", "<options"});
    for (const Path& path : allPaths())
        table.addRow({path.label, "`" + path.id + "`", path.options});
    return table.toMarkdown();
}

std::string setupOf(const RecordSet& records)
{
    for (const Record& record : records.getAll())
    {
        if (record.contains("setup"))
            return record["setup"];
    }
    return "not measured";
}

std::string warningOf(const RecordSet& records)
{
    for (const Record& record : records.getAll())
    {
        if (record.contains("warning") && record["warning"] != "")
            return record["warning"].get<std::string>() + "\n\n";
    }
    return "";
}

// What the median round costs on both sides without the sender's own pacing, against the raw peer.
std::string describeNetCost(const RunData& data)
{
    const double pacing = data.age.medianOf("pacing_cpu_us");
    const auto cost = [&](const char* path) {
        return data.age.where("bytes", PictureBytes).where("path", path).medianOf("cpu_us") -
               pacing;
    };
    return "The sender's pacing alone (a timer and a sleep per frame) costs " +
           formatNumber(pacing) +
           " us per frame and is part of every sender's figure. Without it, both sides added at "
           "1,920 "
           "bytes: ours " +
           formatNumber(cost(OursId)) + " us, nanomsg with our options " +
           formatNumber(cost(RawNanomsgId)) + " us, ratio " +
           formatRatio(cost(OursId) / cost(RawNanomsgId)) + ".";
}

std::string readFile(const std::string& path)
{
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

using Fields = std::vector<std::pair<std::string, std::string>>;

Fields makeFields(const RunData& data)
{
    return {
        {"WARNING", warningOf(data.age)},
        {"AGE_SETUP", setupOf(data.age)},
        {"OVERLOAD_SETUP", setupOf(data.overload)},
        {"FANOUT_SETUP", setupOf(data.fanout)},
        {"JOIN_SETUP", setupOf(data.join)},
        {"MICRO_SETUP", setupOf(data.micro)},
        {"PATHS", describePaths()},
        {"TARGETS", makeTargetTable(data).toMarkdown()},
        {"AGE", makeAgeTable(data.age).toMarkdown()},
        {"NET_COST", describeNetCost(data)},
        {"OVERLOAD", makeOverloadTable(data.overload).toMarkdown()},
        {"FANOUT", makeFanoutTable(data.fanout).toMarkdown()},
        {"MEMORY", makeMemoryTable(data.fanout).toMarkdown()},
        {"JOIN", makeJoinTable(data.join).toMarkdown()},
        {"MICRO", makeMicroTable(data.micro).toMarkdown()},
    };
}

std::string fillTemplate(std::string text, const Fields& fields)
{
    for (const auto& [name, value] : fields)
    {
        const std::string mark = "@" + name + "@";
        for (std::size_t at = text.find(mark); at != std::string::npos; at = text.find(mark))
            text.replace(at, mark.size(), value);
    }
    return text;
}

// A picture's data: gnuplot's columns, with a quoted heading over each.
class PlotFile
{
public:
    PlotFile(const ReportOptions& options, const std::string& name)
        : m_file(options.dataDirectory + "/" + name + ".dat", std::ios::trunc)
    {
    }

    void addRow(const std::string& first, const std::vector<double>& values)
    {
        m_file << '"' << first << '"';
        for (const double value : values)
            m_file << ' ' << value;
        m_file << '\n';
    }

    void addHeadings(const std::vector<std::string>& headings)
    {
        for (const std::string& heading : headings)
            m_file << '"' << heading << "\" ";
        m_file << '\n';
    }

    void addGap()
    {
        m_file << "\n\n";
    }

private:
    std::ofstream m_file;
};

// One column for each path.
void writeColumns(
    PlotFile& file,
    const RecordSet& records,
    const std::vector<std::string>& rows,
    const std::function<double(const RecordSet&, const std::string&)>& value)
{
    const auto paths = records.distinct("path");
    std::vector<std::string> headings = {"x"};
    for (const auto& path : paths)
        headings.push_back(labelOf(path));
    file.addHeadings(headings);
    for (const std::string& row : rows)
    {
        std::vector<double> values;
        values.reserve(paths.size());
        for (const auto& path : paths)
            values.push_back(value(records.where("path", path), row));
        file.addRow(row, values);
    }
}

void writeAgePlot(const ReportOptions& options, const RunData& data)
{
    PlotFile file(options, "age");
    const auto value = [](const RecordSet& records, const std::string& row)
    {
        const std::string digits = row == "99.9" ? "999" : row;
        return records.medianOf("p" + digits + "_us");
    };
    writeColumns(
        file, data.age.where("bytes", PictureBytes), {"10", "25", "50", "75", "90", "99", "99.9"},
        value);
}

void writeOverloadPlot(const ReportOptions& options, const RunData& data)
{
    PlotFile file(options, "overload");
    const RecordSet records = data.overload.where("bytes", PictureBytes);
    file.addHeadings({"x", "p50", "p99", "p99.9"});
    for (const auto& path : records.distinct("path"))
    {
        const RecordSet rows = records.where("path", path);
        file.addRow(
            labelOf(path),
            {rows.medianOf("p50_us"), rows.medianOf("p99_us"), rows.medianOf("p999_us")});
    }
}

void writeFanoutPlot(const ReportOptions& options, const RunData& data)
{
    PlotFile file(options, "fanout");
    const RecordSet records = data.fanout.where("objects", 1);
    std::vector<std::string> counts;
    for (const auto& count : records.sortedDistinct("receivers"))
        counts.push_back(count.dump());
    const auto value = [](const RecordSet& rows, const std::string& count)
    { return rows.where("receivers", std::stoul(count)).medianOf("sender_cpu_per_receiver_us"); };
    writeColumns(file, records, counts, value);
}

// One block for each row of the table: sorted times and the share of repetitions up to each.
void writeJoinPlot(const ReportOptions& options, const RunData& data)
{
    PlotFile file(options, "join");
    unsigned block = 0;
    for (const char* scenario : {"join", "join, busy core"})
    {
        for (const auto& row : data.join.where("case", scenario).distinct("row"))
        {
            const RecordSet rows = data.join.where("case", scenario).where("row", row);
            const Record& first = rows.getAll().front();
            auto values = rows.valuesOf("open_ms");
            std::ranges::sort(values);
            std::string title = labelOf(first["path"]);
            if (first["path"] == OursId)
                title += ", bell: " + first["bell"].get<std::string>();
            if (block++ > 0)
                file.addGap();
            file.addHeadings(
                {"ms", title + (scenario == std::string("join") ? "" : ", busy core")});
            for (std::size_t i = 0; i < values.size(); i++)
            {
                const double share =
                    100 * static_cast<double>(i + 1) / static_cast<double>(rows.getCount());
                file.addRow(std::to_string(values[i]), {share});
            }
        }
    }
}

void writeMicroPlot(const ReportOptions& options, const RunData& data)
{
    PlotFile file(options, "micro");
    const auto operations = data.micro.sortedDistinct("operation");
    std::vector<std::string> headings = {"x"};
    for (const auto& operation : operations)
        headings.push_back(operation);
    file.addHeadings(headings);
    for (const auto& bytes : data.micro.sortedDistinct("bytes"))
    {
        std::vector<double> values;
        for (const auto& operation : operations)
        {
            const RecordSet rows = data.micro.where("bytes", bytes).where("operation", operation);
            values.push_back(rows.medianOf("bytes_per_s") / 1e9);
        }
        file.addRow(bytes.dump(), values);
    }
}

bool writeReport(const ReportOptions& options)
{
    const RunData data = readRun(options.dataDirectory);
    Fields fields = makeFields(data);
    fields.emplace_back("FINDINGS", readFile(options.findingsPath));
    std::ofstream output(options.output, std::ios::trunc);
    output << fillTemplate(readFile(options.templatePath), fields);
    for (const auto write :
         {writeAgePlot, writeOverloadPlot, writeFanoutPlot, writeJoinPlot, writeMicroPlot})
        write(options, data);
    std::printf("%s", makeTargetTable(data).toText().c_str());
    output.close();
    return output.good();
}

} // namespace
} // namespace vlx::bench

int main(int argc, char** argv)
{
    CLI::App app("Writes the summary of a benchmark run, and the data of its pictures.");
    vlx::bench::ReportOptions options;
    app.add_option("--data", options.dataDirectory, "directory of the raw data")
        ->required()
        ->check(CLI::ExistingDirectory);
    app.add_option("--template", options.templatePath, "the summary with marks in place of data")
        ->required()
        ->check(CLI::ExistingFile);
    app.add_option("--findings", options.findingsPath, "what was found out about the figures")
        ->required()
        ->check(CLI::ExistingFile);
    app.add_option("--output", options.output, "the summary")->required();
    CLI11_PARSE(app, argc, argv);
    return vlx::bench::writeReport(options) ? 0 : 1;
}
