#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <vlx/VlxTypes.hpp>
#include <vlxkit/StreamFormat.hpp>

#include "common/Poll.hpp"

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

    /// @return samples from the beginning to the end; unset if nobody knows
    const std::optional<std::uint64_t>& getLength() const
    {
        return m_length;
    }

    /// @return whether somebody else makes the samples now, so that a read can wait for them
    bool isLive() const
    {
        return m_isLive;
    }

    /// @return after the end: one line that says what was wrong with it; empty if nothing was
    const std::string& getProblem() const
    {
        return m_problem;
    }

protected:
    kit::StreamFormat m_format;
    std::optional<std::uint64_t> m_length;
    bool m_isLive = false;
    std::string m_problem;
};

/// What a user says about an input beside its name.
struct InputSettings
{
    bool raw = false;         ///< samples, whatever the bytes look like
    bool formatGiven = false; ///< the format was said, so it is not that of an audio file
    kit::StreamFormat format; ///< of raw samples
};

/// Opens a file, a FIFO or standard input, "-". A file whose extension says "raw" holds raw samples,
/// any other is an audio file. A FIFO and standard input carry a WAV file, told by its beginning, or
/// raw samples.
///
/// @param stop      ends the opening, and every read that waits for more
/// @param deadline  of the first bytes of a FIFO or standard input
/// @return null if there was a stop
/// @throws CommandFailure if it cannot be read
std::unique_ptr<AudioInput> openInput(
    const std::string& path,
    const InputSettings& settings,
    const StopSignal& stop,
    const Deadline& deadline = {});

class ByteSource;

/// Takes an audio file from bytes: of any kind that libsndfile reads if it is a regular file, WAV if
/// the bytes cannot be read twice. Integers and both float types come out bit for bit,
/// little-endian; lossy kinds as F32LE.
///
/// @param path  of a regular file
/// @throws CommandFailure if it cannot be read
std::unique_ptr<AudioInput>
openSoundInput(std::unique_ptr<ByteSource> source, const std::string& path);

/// Makes an endless sine at half of full scale.
///
/// @param frequencyHz  repeats exactly only if it divides the rate; the phase never jumps. 0 gives
///                     silence
std::unique_ptr<AudioInput> makeToneInput(double frequencyHz, const kit::StreamFormat& format);

} // namespace vlx::tool
