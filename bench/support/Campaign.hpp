#pragma once

#include <fstream>
#include <string>
#include <vector>

#include "support/Catalogue.hpp"
#include "support/Records.hpp"
#include "support/RunDirectory.hpp"

namespace vlx::bench
{

/// What every benchmark program takes on its command line.
struct CampaignOptions
{
    bool quick = false;
    unsigned rounds = 5;
    std::string output;            ///< file for the raw data; empty: none
    std::vector<std::string> only; ///< ids of paths; empty: all of the program's
};

/// One benchmark program at work: its private directory, its raw data and its print-out.
class Campaign
{
public:
    explicit Campaign(const CampaignOptions& options);

    /// Prints the machine and the counts, with a warning when the build makes them meaningless.
    /// @param counts  frames, warm-up and rounds in words
    void begin(const std::string& counts);

    /// Keeps a record and writes it to the raw data.
    void add(Record record);

    /// @return those of the ids that were asked for and built
    std::vector<Path> selectPaths(const std::vector<std::string>& ids) const;

    const CampaignOptions& getOptions() const
    {
        return m_options;
    }
    const std::string& getDirectory() const
    {
        return m_directory.getPath();
    }
    const RecordSet& getRecords() const
    {
        return m_records;
    }

private:
    CampaignOptions m_options;
    RunDirectory m_directory;
    std::ofstream m_output;
    RecordSet m_records;
};

/// Main function of a benchmark program: parses the command line, catches interrupts.
///
/// @param run  does the work and prints the tables
/// @return exit code: 0 done, 1 failed or interrupted, 2 usage
int runCampaign(
    int argc,
    char** argv,
    const std::string& description,
    bool (*run)(Campaign& campaign));

/// The order in which a round visits its paths: each round begins one further, so that no path is
/// always measured behind the same neighbour.
std::vector<Path> rotate(std::vector<Path> paths, unsigned round);

} // namespace vlx::bench
