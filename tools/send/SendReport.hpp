#pragma once

#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

#include <vlx/SideChannel.hpp>
#include <vlx/VlxTypes.hpp>
#include <vlxkit/StreamFormat.hpp>

namespace vlx::tool
{

struct SendOptions;

/// The report of a sender about its stream, for --report. Written before the first frame and
/// whenever a run begins, so that it exists even if the process is killed.
class SendReport
{
public:
    /// @param format  the first one
    SendReport(const SendOptions& options, const kit::StreamFormat& format, TimeSyncProtocol clock);

    /// Begins a stretch of the stream whose timestamps follow from its first one, the sample count
    /// and a speed.
    ///
    /// @param ppm  how much faster than nominal the samples follow one another
    /// @throws CommandFailure, as write()
    void beginRun(TimeValue timestamp, const kit::StreamFormat& format, double ppm);

    /// @param timestamp  of the next sample
    /// @return whether it follows so from the present run, within half a millisecond
    bool isInRun(TimeValue timestamp) const;

    /// @param isLast  false: a file that keeps every text that is written, such as a pipe, is left
    ///                alone
    /// @throws CommandFailure if it cannot be written
    void write(bool isLast = false) const;

    std::uint64_t frames = 0;
    std::uint64_t samples = 0;
    double speedPpm = 0;   ///< of a live input's clock against the stream's, where that is followed
    bool finished = false; ///< the sender came to its own end

private:
    /// The present one.
    struct Run
    {
        TimeValue timestamp = 0;
        std::uint64_t sample = 0;
        kit::StreamFormat format = {};
        double ppm = 0;
    };

    const std::string m_path; // empty: nothing is written
    const kit::StreamFormat m_firstFormat;
    nlohmann::ordered_json m_stream; // what stays the same
    nlohmann::ordered_json m_runs = nlohmann::ordered_json::array();
    Run m_run;
};

} // namespace vlx::tool
