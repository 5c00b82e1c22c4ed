#pragma once

#include <algorithm>

namespace vlx::tool
{

/// Follows one clock with another: proportional-integral control, critically damped, of how much
/// faster than nominal the input is consumed. A constant difference of the clocks leaves no error
/// behind; one of 200 ppm that begins suddenly makes one of a quarter of a millisecond meanwhile.
class RateControl
{
public:
    /// @param error     how much later than due the output is, seconds
    /// @param interval  since the update before, seconds
    void update(double error, double interval)
    {
        m_smoothed += (error - m_smoothed) * std::min(1.0, interval / SmoothingSeconds);
        m_integral = limit(m_integral + Bandwidth * Bandwidth * m_smoothed * interval);
        m_correction = limit(m_integral + 2 * Bandwidth * m_smoothed);
    }

    /// To be called when the output was put where it belongs. What was learned of the clocks stays.
    void forgetError()
    {
        m_smoothed = 0;
        m_correction = m_integral;
    }

    /// @return input per output over the nominal one, about 1
    double getSpeed() const
    {
        return 1 + m_correction;
    }

private:
    static constexpr double Bandwidth = 0.3;         // radians per second
    static constexpr double SmoothingSeconds = 0.25; // of what the device's pointer jitters
    static constexpr double MaxCorrection = 0.002;   // far above any crystal, hardly to be heard

    static double limit(double correction)
    {
        return std::clamp(correction, -MaxCorrection, MaxCorrection);
    }

    double m_smoothed = 0;
    double m_integral = 0;
    double m_correction = 0;
};

} // namespace vlx::tool
