#pragma once

/// Following one clock with another.

#include <algorithm>

namespace vlx::kit
{

/// Follows one clock with another: proportional-integral control, critically damped, of how much
/// faster than nominal one of them runs. A constant difference of the clocks leaves no error
/// behind. One of 200 ppm that begins suddenly causes one of a quarter of a millisecond meanwhile,
/// and half a millisecond at half the bandwidth.
class RateControl
{
public:
    /// Makes a control loop at rest.
    ///
    /// @param bandwidth         how fast a difference is followed, radians per second
    /// @param smoothingSeconds  of what the measurements jitter; well below the bandwidth's inverse
    explicit RateControl(double bandwidth = 0.3, double smoothingSeconds = 0.25)
        : m_bandwidth(bandwidth), m_smoothingSeconds(smoothingSeconds)
    {
    }

    /// Takes a measurement.
    ///
    /// @param error     how much too slowly things went so far, seconds
    /// @param interval  since the update before, seconds
    void update(double error, double interval)
    {
        m_smoothed += (error - m_smoothed) * std::min(1.0, interval / m_smoothingSeconds);
        m_integral = limit(m_integral + m_bandwidth * m_bandwidth * m_smoothed * interval);
        m_correction = limit(m_integral + 2 * m_bandwidth * m_smoothed);
    }

    /// Forgets the error, after a jump to the right place. What was learned of the clocks stays.
    void forgetError()
    {
        m_smoothed = 0;
        m_correction = m_integral;
    }

    /// @return speed over the nominal one, about 1
    double getSpeed() const
    {
        return 1 + m_correction;
    }

private:
    static constexpr double MaxCorrection = 0.002; // far above any crystal, hardly to be heard

    static double limit(double correction)
    {
        return std::clamp(correction, -MaxCorrection, MaxCorrection);
    }

    double m_bandwidth;
    double m_smoothingSeconds;
    double m_smoothed = 0;
    double m_integral = 0;
    double m_correction = 0;
};

} // namespace vlx::kit
