#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <vlx/VlxTypes.hpp>
#include <vlxkit/StreamFormat.hpp>

namespace vlx::tool
{

/// A stretch of the stream whose timestamps follow from its first one and the sample count alone.
struct SentRun
{
    std::uint64_t sample; ///< first one, counted from the beginning of the stream
    TimeValue timestamp;  ///< of that sample
    kit::StreamFormat format;
};

/// What a sender says about its stream. Written before the first frame and whenever a run begins, so
/// that what was sent can be told even if the process is killed.
struct SendReport
{
    std::string name;
    std::string input;
    kit::StreamFormat format; ///< the first one
    std::string clock;
    std::uint64_t frames = 0;
    std::uint64_t samples = 0;
    bool finished = false; ///< the sender came to its own end
    std::vector<SentRun> runs;

    /// @param path    empty: nothing is written
    /// @param isLast  false: standard output, "-", is left alone
    /// @throws CommandFailure if it cannot be written
    void write(const std::string& path, bool isLast = false) const;
};

} // namespace vlx::tool
