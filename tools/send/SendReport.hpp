#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <vlxkit/StreamFormat.hpp>

#include <vlx/VlxTypes.hpp>

namespace vlx::tool
{

/// A stretch of the stream whose timestamps follow from its first one and the sample count alone.
struct SentRun
{
    std::uint64_t sample; ///< first one, counted from the beginning of the stream
    TimeValue timestamp;  ///< of that sample
};

/// What a sender says about its stream. Written before the first frame and whenever a run begins, so
/// that what was sent can be told even if the process is killed.
struct SendReport
{
    std::string name;
    std::string input;
    kit::StreamFormat format;
    std::string clock;
    std::uint64_t frames = 0;
    std::uint64_t samples = 0;
    bool finished = false; ///< the sender came to its own end
    std::vector<SentRun> runs;

    /// @param path  empty: nothing is written
    /// @return empty if it was done; otherwise one line that says what went wrong
    std::string write(const std::string& path) const;
};

} // namespace vlx::tool
