#include "support/Campaign.hpp"

#include <algorithm>
#include <cstdio>

#include <CLI/CLI.hpp>

#include "support/Interrupt.hpp"
#include "support/Machine.hpp"

namespace vlx::bench
{

Campaign::Campaign(const CampaignOptions& options) : m_options(options)
{
    if (!options.output.empty())
        m_output.open(options.output, std::ios::trunc);
}

void Campaign::begin(const std::string& counts)
{
    const std::string warning = describeBuildWarning();
    const std::string setup = describeMachine() + " | " + counts;
    if (!warning.empty())
        std::printf("%s\n", warning.c_str());
    std::printf("%s\n", setup.c_str());
    std::fflush(stdout);
    add({{"setup", setup}, {"warning", warning}});
}

void Campaign::add(Record record)
{
    if (m_output.is_open())
        m_output << record.dump() << std::endl;
    m_records.add(std::move(record));
}

std::vector<Path> Campaign::selectPaths(const std::vector<std::string>& ids) const
{
    auto paths = bench::selectPaths(ids);
    if (!m_options.only.empty())
    {
        std::erase_if(
            paths, [this](const Path& path)
            { return std::ranges::find(m_options.only, path.id) == m_options.only.end(); });
    }
    return paths;
}

int runCampaign(
    int argc,
    char** argv,
    const std::string& description,
    bool (*run)(Campaign& campaign))
{
    CLI::App app(description);
    CampaignOptions options;
    app.add_flag(
        "--quick", options.quick, "fewer frames and repetitions, every table all the same");
    app.add_option("--rounds", options.rounds, "rounds over all paths")->capture_default_str();
    app.add_option("--output", options.output, "file for the raw data, JSON lines");
    app.add_option("--only", options.only, "only these paths (ids as in the raw data)");
    try
    {
        app.parse(argc, argv);
    }
    catch (const CLI::ParseError& error)
    {
        return app.exit(error) == 0 ? 0 : 2;
    }
    catchInterrupts();
    Campaign campaign(options);
    if (campaign.getDirectory().empty())
    {
        std::perror("cannot make a private directory");
        return 1;
    }
    return run(campaign) && !isInterrupted() ? 0 : 1;
}

std::vector<Path> rotate(std::vector<Path> paths, unsigned round)
{
    if (!paths.empty())
        std::rotate(
            paths.begin(), paths.begin() + static_cast<long>(round % paths.size()), paths.end());
    return paths;
}

} // namespace vlx::bench
