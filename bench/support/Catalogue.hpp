#pragma once

#include <string>
#include <vector>

namespace vlx::bench
{

/// One way to carry frames, as it stands in tables and raw data.
struct Path
{
    std::string id;      ///< in raw data and on the command line
    std::string label;   ///< in tables
    std::string program; ///< suffix of the endpoint's program
    std::string variant; ///< set of options, known to the adapter
    std::string options; ///< the same in words, for the summary
};

extern const char* const OursId;
extern const char* const RawNanomsgId; ///< with our socket options
extern const char* const PollsId;      ///< the same, and waiting as we do
extern const char* const ZmqId;
extern const char* const NngId;

/// All paths in the order of the tables, whether their programs were built or not.
const std::vector<Path>& allPaths();

/// @return null if there is none with this id
const Path* findPath(const std::string& id);

/// @return path of the endpoint's program, which lies beside the running one
std::string getEndpointProgram(const Path& path);

bool isBuilt(const Path& path);

/// @return those of the given ids, in the order of the tables, whose programs were built; a message
///         on standard error names each that was not
std::vector<Path> selectPaths(const std::vector<std::string>& ids);

} // namespace vlx::bench
