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

/// What came of waiting for a live input.
enum class InputArrival
{
    Some,
    /// Nothing was waited for: as much is on hand as may be read ahead.
    Full,
    /// Up to the deadline, at the end, at an error or at a stop.
    Nothing,
};

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

    /// Waits for more samples of a live input and reads them ahead.
    virtual InputArrival takeIn(const Deadline& /*deadline*/)
    {
        return InputArrival::Nothing;
    }

    /// @return samples of a live input that were read ahead
    virtual std::size_t getNumWaiting() const
    {
        return 0;
    }

    /// Goes back to the beginning.
    ///
    /// @return whether the input can do that
    virtual bool rewind()
    {
        return false;
    }

    /// @return samples from the beginning to the end; unset if unknown
    const std::optional<std::uint64_t>& getLength() const
    {
        return m_length;
    }

    /// @return whether another program makes the samples now, so that a read can wait for them
    bool isLive() const
    {
        return m_isLive;
    }

    /// @return after the end: one line about what went wrong; empty if nothing did
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

/// What a user specifies about an input beside its name.
struct InputSettings
{
    bool raw = false;             ///< samples, whatever the bytes look like
    bool formatGiven = false;     ///< the format was said, so it is not that of an audio file
    kit::StreamFormat format;     ///< of raw samples and tones
    std::optional<double> toneHz; ///< a tone instead of any file; see makeToneInput()
};

/// Opens a file, a FIFO or standard input, "-". A file whose extension says "raw" holds raw
/// samples, any other is an audio file. A FIFO and standard input carry a WAV file, recognised by
/// its beginning, or raw samples if the settings say so.
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

/// Opens an audio file of any kind that libsndfile reads. Integers and both float types come out
/// bit for bit, little-endian; lossy kinds as F32LE.
///
/// @param source  the file, which messages name after it
/// @param path    of a regular file
/// @throws CommandFailure if it cannot be read
std::unique_ptr<AudioInput> openSoundInput(const ByteSource& source, const std::string& path);

/// Where the samples of a WAV file lie.
struct WavSamples
{
    kit::StreamFormat format;
    std::uint64_t place = 0;            ///< of the first one, bytes from the beginning
    std::optional<std::uint64_t> bytes; ///< unset: up to the end
};

/// Reads the header of a WAV or RF64 file. A length of 0, or an unlikely large
/// one, is left by a writer that did not know it: such a file goes on to its end.
///
/// @return unset if its samples are not stored as a stream carries them, or it is malformed
std::optional<WavSamples> findWavSamples(ByteSource& source);

/// Makes an endless sine at half of full scale.
///
/// @param frequencyHz  repeats exactly only if it divides the rate; the phase never jumps. 0 gives
///                     silence
std::unique_ptr<AudioInput> makeToneInput(double frequencyHz, const kit::StreamFormat& format);

} // namespace vlx::tool
