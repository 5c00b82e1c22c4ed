#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include <nlohmann/json_fwd.hpp>

#include <vlx/VlxTypes.hpp>
#include <vlxkit/StreamFormat.hpp>

#include "common/Poll.hpp"

namespace vlx::tool
{

class StopSignal;

/// Where received audio goes. Everything that was written stays, whatever fails afterwards.
///
/// @throws CommandFailure from start(), write(), work() and finish(), with a line on what failed
/// @thread one at a time
class AudioOutput
{
public:
    virtual ~AudioOutput() = default;

    /// Sees whether the output can take the format. Called once, before the first write.
    virtual void start(const kit::StreamFormat& format) = 0;

    /// @param bytes  whole samples
    /// @param time   of the first of them, nanoseconds of CLOCK_MONOTONIC; only what is heard at
    ///               once looks at it
    virtual void write(const ByteView& bytes, TimeValue time) = 0;

    /// Does what has to be done in time. Called every WorkInterval where something is played.
    virtual void work() {}

    /// Ends the output, also one that was never started or has failed, and sees that everything is
    /// safe. Called once.
    virtual void finish() = 0;

    /// Adds what only this output knows. After finish().
    virtual void addToReport(nlohmann::ordered_json& /*report*/) const {}

    /// @return faults that did not end the output, in a few words; empty without any
    virtual std::string describeFaults() const
    {
        return {};
    }
};

/// What bounds an output's waits for other programs.
struct OutputWaits
{
    const StopSignal& stop;
    Deadline openDeadline; ///< for the other end of a FIFO
};

/// Opens an audio file, a file of raw samples, or a stream into a pipe or a device.
///
/// A recording is written beside the file of that name and takes its place when it holds something:
/// nothing is left of one that was never begun, and a former recording stays until then.
///
/// The header is brought up to date with each write, so that at every moment what was written can
/// be read. Exceptions are kinds that keep samples back until a block is full: FLAC, Ogg, Opus and
/// MP3 files are readable up to the last complete block.
///
/// @param path       "-" for standard output
/// @param type       kind of file, such as "wav" or "raw"; empty: by the path's extension, WAV if
///                   it has none, and raw samples for "-". Pipes take only raw samples and WAV
/// @param overwrite  a file that exists is replaced
/// @throws CommandFailure if it cannot be written, or exists, or the kind is not known
std::unique_ptr<AudioOutput> openOutput(
    const std::string& path,
    const std::string& type,
    bool overwrite,
    const OutputWaits& waits);

/// Checks what can be checked of a file that is opened later.
///
/// @throws CommandFailure if the kind is not known, or the directory takes no file
void checkOutput(const std::string& path, const std::string& type);

/// @return names of all kinds, for the help
std::string listOutputTypes();

/// @return whether the extension asks for raw samples: ".raw" or ".pcm"
bool isRawPath(const std::string& path);

/// How often what is played has to be looked after.
constexpr auto WorkInterval = std::chrono::milliseconds(5);

/// From a sample's timestamp until it is heard, if nothing else is wanted.
constexpr auto DefaultLatency = std::chrono::milliseconds(100);

/// Plays on time: each sample leaves its timestamp plus the latency later. The device's clock is
/// followed by resampling; where nothing has come there is silence.
///
/// @param device  ALSA's name
/// @throws CommandFailure if the device cannot be opened, or the tool was built without ALSA
std::unique_ptr<AudioOutput>
openPlayOutput(const std::string& device, std::chrono::nanoseconds latency, const StopSignal& stop);

} // namespace vlx::tool
