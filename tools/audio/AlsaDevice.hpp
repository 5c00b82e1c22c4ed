#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <alsa/asoundlib.h>

#include <vlx/VlxTypes.hpp>

namespace vlx::tool
{

/// A playback device, and when what is written next will leave it.
///
/// A device without a clock of its own, such as "null", takes everything at once; then the system's
/// clock stands in for it.
///
/// @throws CommandFailure from whatever finds that the device cannot be played on
/// @thread one at a time
class AlsaDevice
{
public:
    /// When and where the device began to play.
    struct Origin
    {
        std::uint64_t sample; ///< counted over everything that was written
        TimeValue time;       ///< at which it left, nanoseconds of CLOCK_MONOTONIC
    };

    /// Opens it.
    explicit AlsaDevice(std::string name);
    ~AlsaDevice();

    AlsaDevice(const AlsaDevice&) = delete;
    AlsaDevice& operator=(const AlsaDevice&) = delete;

    /// Sets the format, as near as the device can.
    void configure(std::uint32_t rate, std::uint32_t channels);

    /// Begins to play, with silence of that length.
    void begin(double leadSeconds);

    /// Looks at the clock and at the device.
    ///
    /// @return false if it has run dry or stands still: begin() again
    bool measure();

    /// @return when the next sample written will leave, as of the last measure(), nanoseconds of
    ///         CLOCK_MONOTONIC
    double getNextTime() const
    {
        return m_nextTime;
    }

    /// @return samples that can be written without waiting
    std::size_t getSpace() const
    {
        return m_space;
    }

    /// @param values  whole samples, at most getSpace()
    /// @return as measure()
    bool write(const std::vector<float>& values);

    /// Ends what plays, and leaves the device to others. Called last.
    /// @param drain  whether everything that was written is played before
    void end(bool drain);

    std::uint32_t getRate() const
    {
        return m_rate;
    }

    /// @return shortest time that has to be written ahead, seconds
    double getMinLead() const
    {
        return m_minLead;
    }

    const std::vector<Origin>& getOrigins() const
    {
        return m_origins;
    }

    std::uint64_t getNumWritten() const
    {
        return m_numWritten;
    }

private:
    void close();
    [[noreturn]] void fail(const std::string& problem) const;
    void check(int error) const;
    bool isGoing(long result) const;

    const std::string m_name;
    snd_pcm_t* m_pcm = nullptr;
    std::uint32_t m_rate = 0;
    std::uint32_t m_channels = 0;
    double m_minLead = 0;
    bool m_clockless = false;
    double m_nextTime = 0;
    std::size_t m_space = 0;
    std::uint64_t m_numWritten = 0;
    std::vector<Origin> m_origins;
};

} // namespace vlx::tool
