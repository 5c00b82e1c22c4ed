#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include <vlxkit/StreamFormat.hpp>

#include "audio/AudioOutput.hpp"
#include "common/CommonOptions.hpp"

namespace vlx::tool
{

/// Where a recording goes, and how long it becomes.
struct RecordingOptions
{
    std::string output; ///< file, or the pattern of its name; empty if it is played
    std::string type;   ///< of the output; empty: by its extension
    std::string play;   ///< device; empty: it is recorded
    bool split = false;
    bool overwrite = false;
    bool namePattern = false; ///< the output is a pattern for strftime()
    bool noFill = false;
    bool oneshot = false;
    OptionalDuration maxDuration; ///< of a file
    OptionalDuration duration;    ///< of the whole
    OptionalDuration latency;
};

/// Where a sample stands in a recording.
struct FilePlace
{
    std::size_t file = 0;     ///< number of the file, from 0
    std::uint64_t sample = 0; ///< counted from the beginning of that file
};

/// The outputs of a recording, one after the other: files, or what is played in each format. Names
/// the files so that none of an earlier recording is replaced unless that is wanted.
///
/// @throws CommandFailure from whatever opens, writes or closes an output
/// @thread one at a time
class Outputs
{
public:
    /// Opens the first output, so that one that cannot be written is reported at once; not if its
    /// name depends on the time of the first frame.
    Outputs(const RecordingOptions& options, const OutputWaits& waits);

    /// @return whether an output waits for begin()
    bool isWaiting() const
    {
        return m_output && !m_format;
    }

    /// @return format of the present output; not set before begin()
    const std::optional<kit::StreamFormat>& getFormat() const
    {
        return m_format;
    }

    /// Begins the next output.
    ///
    /// @param time  of its first frame's arrival, nanoseconds of CLOCK_MONOTONIC
    void begin(kit::StreamFormat format, TimeValue time);

    /// Writes to the present file, or to the next one if the present one has its full length.
    ///
    /// @param bytes  whole samples, at least one
    /// @param time   of their arrival, nanoseconds of CLOCK_MONOTONIC
    /// @param due    of the first of them, if they are played; same unit
    /// @return samples written: as many as the file takes
    std::uint64_t write(const ByteView& bytes, TimeValue time, TimeValue due);

    /// Does what a playing device needs every WorkInterval.
    void work();

    /// Closes the present output.
    void finish();

    /// @return place of the sample that is written next
    const FilePlace& getPlace() const
    {
        return m_place;
    }

    /// @return samples until the whole has its duration
    std::uint64_t getSamplesLeft() const
    {
        return countSamplesUntil(m_options.duration, m_closedNs);
    }

    /// @return samples that have been written
    std::uint64_t getNumSamples() const
    {
        return m_numSamples;
    }

    /// @return length of what has been written, nanoseconds
    std::int64_t getDurationNs() const;

    /// @return files that have been opened
    const std::vector<std::string>& getFiles() const
    {
        return m_files;
    }

    /// @return faults that ended no output, in a few words after "; ". After finish()
    std::string describeFaults() const;

    /// Adds what only the outputs know. After finish().
    void addToReport(nlohmann::ordered_json& report) const;

private:
    std::unique_ptr<AudioOutput> open(TimeValue time);
    std::string makeName(TimeValue time);
    std::uint64_t countSamplesUntil(const OptionalDuration& length, std::int64_t doneNs) const;

    const RecordingOptions& m_options;
    const OutputWaits m_waits;
    std::size_t m_number = 0;     // of the last numbered file
    std::set<std::string> m_used; // names that a pattern gave
    std::vector<std::string> m_files;
    std::unique_ptr<AudioOutput> m_output;
    std::vector<std::unique_ptr<AudioOutput>> m_closed; // for the report
    std::optional<kit::StreamFormat> m_format;
    FilePlace m_place;
    std::uint64_t m_numSamples = 0;
    std::int64_t m_closedNs = 0; // length of closed outputs
};

} // namespace vlx::tool
