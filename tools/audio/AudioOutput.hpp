#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <vlxkit/StreamFormat.hpp>

#include <vlx/VlxTypes.hpp>

namespace vlx::tool
{

class StopSignal;

/// Where received audio goes. Everything that was written stays, whatever fails afterwards.
///
/// @thread one at a time
class AudioOutput
{
public:
    virtual ~AudioOutput() = default;

    /// Called once, before the first write.
    ///
    /// @return whether the output can take the format; otherwise getProblem() says why not
    virtual bool start(const kit::StreamFormat& format) = 0;

    /// @param bytes  whole samples
    /// @return whether all of it was written; otherwise getProblem() says why not
    virtual bool write(const ByteView& bytes) = 0;

    /// Ends the output, also one that was never started or has failed. Called once.
    ///
    /// @return whether everything that was written is safe; otherwise getProblem() says why not
    virtual bool finish() = 0;

    /// @return one line on the last failure
    const std::string& getProblem() const
    {
        return m_problem;
    }

protected:
    std::string m_problem;
};

/// Opens an audio file whose kind follows from its extension; without a known one it is WAV. Its
/// former content goes when the first sequence arrives; a new file in which nothing was recorded is
/// removed again.
///
/// The header is brought up to date with each write, so that at every moment what was written can be
/// read. Exceptions are kinds that keep samples back until a block is full: FLAC, Ogg, Opus and MP3
/// files are readable up to the last complete block.
///
/// @throws CommandFailure if it cannot be written
std::unique_ptr<AudioOutput> openFileOutput(const std::string& path);

/// @return whether the extension asks for raw samples: ".raw" or ".pcm"
bool isRawPath(const std::string& path);

/// Opens a file or a pipe for raw samples in the stream's own format.
///
/// @param path  "-" for standard output
/// @param stop  bounds the wait for a reader that takes nothing
/// @throws CommandFailure if it cannot be written
std::unique_ptr<AudioOutput> openRawOutput(const std::string& path, const StopSignal& stop);

} // namespace vlx::tool
