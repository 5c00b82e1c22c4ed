#pragma once

#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

#include <vlx/VlxTypes.hpp>
#include <vlxkit/StreamFormat.hpp>

namespace vlx::tool
{

/// What a sender says about its stream. Written before the first frame and whenever a run begins,
/// so that what was sent can be told even if the process is killed.
struct SendReport
{
    std::string path; ///< empty: nothing is written
    std::string name;
    std::string input;
    kit::StreamFormat format; ///< the first one
    std::string clock;
    std::uint64_t frames = 0;
    std::uint64_t samples = 0;
    double speedPpm = 0;   ///< of a live input's clock against the stream's, where that is followed
    bool finished = false; ///< the sender came to its own end
    nlohmann::ordered_json runs = nlohmann::ordered_json::array();

    /// Begins a stretch of the stream whose timestamps follow from its first one, the sample count
    /// and a speed.
    ///
    /// @param ppm  how much faster than nominal the samples follow one another
    /// @throws CommandFailure, as write()
    void beginRun(TimeValue timestamp, const kit::StreamFormat& runFormat, double ppm);

    /// @param timestamp  of the next sample
    /// @return whether it follows so from the present run, within half a millisecond
    bool isInRun(TimeValue timestamp) const;

    /// @param isLast  false: what keeps every text that is written, such as a pipe, is left alone
    /// @throws CommandFailure if it cannot be written
    void write(bool isLast = false) const;

private:
    /// The present one.
    struct Run
    {
        TimeValue timestamp = 0;
        std::uint64_t sample = 0;
        kit::StreamFormat format = {};
        double ppm = 0;
    };

    Run m_run;
};

} // namespace vlx::tool
