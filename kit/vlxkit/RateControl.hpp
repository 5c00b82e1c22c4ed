#pragma once

/// Control loop that makes one clock follow another.

#include <algorithm>

namespace vlx::kit
{

/// Makes one clock follow another: a critically damped proportional-integral control loop for the
/// speed of one of them. A constant difference in speed leaves no error. A sudden difference of
/// 200 ppm causes a transient error of a quarter of a millisecond, and of half a millisecond at
/// half the bandwidth.
class RateControl
{
public:
    /// Creates a control loop at rest.
    ///
    /// @param bandwidth         how fast a difference is followed, radians per second
    /// @param smoothingSeconds  time constant of the filter against jitter in the measurements,
    ///                          seconds; well below 1 / bandwidth
    explicit RateControl(double bandwidth = 0.3, double smoothingSeconds = 0.25)
        : m_bandwidth(bandwidth), m_smoothingSeconds(smoothingSeconds)
    {
    }

    /// Updates the loop by a measurement.
    ///
    /// @param error     lag of the controlled clock, seconds; negative if it is ahead
    /// @param interval  time since the previous update, seconds
    void update(double error, double interval)
    {
        m_smoothed += (error - m_smoothed) * std::min(1.0, interval / m_smoothingSeconds);
        m_integral = limit(m_integral + m_bandwidth * m_bandwidth * m_smoothed * interval);
        m_correction = limit(m_integral + 2 * m_bandwidth * m_smoothed);
    }

    /// Resets the error, after a jump to the right position. The estimated difference in speed is
    /// kept.
    void forgetError()
    {
        m_smoothed = 0;
        m_correction = m_integral;
    }

    /// @return speed relative to nominal, 0.998 to 1.002
    double getSpeed() const
    {
        return 1 + m_correction;
    }

private:
    static constexpr double MaxCorrection = 0.002; // far above any crystal's, hardly audible

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
