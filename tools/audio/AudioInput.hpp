#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <vlxkit/StreamFormat.hpp>

#include <vlx/VlxTypes.hpp>

namespace vlx::tool
{

class StopSignal;

/// Where the audio of a stream comes from: a file, standard input or a generator.
///
/// @thread one at a time
class AudioInput
{
public:
    virtual ~AudioInput() = default;

    const kit::StreamFormat& getFormat() const
    {
        return m_format;
    }

    /// Reads whole samples in the input's format.
    ///
    /// @param bytes       replaced by what was read
    /// @param numSamples  wanted; fewer come only at the end, at an error or at a stop
    /// @return samples read
    virtual std::size_t read(Buffer& bytes, std::size_t numSamples) = 0;

    /// Goes back to the beginning.
    ///
    /// @return whether the input can do that
    virtual bool rewind()
    {
        return false;
    }

    /// @return after the end: one line that says what was wrong with it; empty if nothing was
    virtual std::string getProblem() const
    {
        return {};
    }

protected:
    kit::StreamFormat m_format;
};

/// Opens an audio file of any kind that libsndfile reads. Integers of 8, 16, 24 and 32 bits and both
/// float types come out bit for bit, little-endian; lossy kinds as F32LE.
///
/// @throws CommandFailure if it cannot be read
std::unique_ptr<AudioInput> openFileInput(const std::string& path);

/// Opens raw samples.
///
/// @param path    "-" for standard input
/// @param format  of the bytes, which are passed on unchanged
/// @param stop    ends a read that waits for more
/// @throws CommandFailure if it cannot be read
std::unique_ptr<AudioInput>
openRawInput(const std::string& path, const kit::StreamFormat& format, const StopSignal& stop);

/// Makes an endless sine at half of full scale.
///
/// @param frequencyHz  repeats exactly only if it divides the rate; the phase never jumps
std::unique_ptr<AudioInput> makeToneInput(double frequencyHz, const kit::StreamFormat& format);

} // namespace vlx::tool
