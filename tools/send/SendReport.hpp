#pragma once

#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

#include <vlx/VlxTypes.hpp>
#include <vlxkit/StreamFormat.hpp>

namespace vlx::tool
{

/// What a sender says about its stream. Written before the first frame and whenever a run begins, so
/// that what was sent can be told even if the process is killed.
struct SendReport
{
    std::string path; ///< empty: nothing is written
    std::string name;
    std::string input;
    kit::StreamFormat format; ///< the first one
    std::string clock;
    std::uint64_t frames = 0;
    std::uint64_t samples = 0;
    bool finished = false; ///< the sender came to its own end
    nlohmann::ordered_json runs = nlohmann::ordered_json::array();

    /// Begins a stretch of the stream whose timestamps follow from its first one and the sample count
    /// alone.
    ///
    /// @throws CommandFailure, as write()
    void beginRun(TimeValue timestamp, const kit::StreamFormat& runFormat);

    /// @param isLast  false: what keeps every text that is written, such as a pipe, is left alone
    /// @throws CommandFailure if it cannot be written
    void write(bool isLast = false) const;
};

} // namespace vlx::tool
