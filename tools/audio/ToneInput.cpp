#include <cmath>
#include <limits>
#include <numbers>
#include <type_traits>

#include "AudioInput.hpp"
#include "PcmCodec.hpp"

namespace vlx::tool
{

namespace
{

constexpr double Amplitude = 0.5;

class ToneInput : public AudioInput
{
public:
    ToneInput(double frequencyHz, const kit::StreamFormat& format)
        : m_turnsPerSample(frequencyHz / format.rate),
          m_values(makeSampleValues(format.sampleFormat))
    {
        m_format = format;
    }

    std::size_t read(Buffer& bytes, std::size_t numSamples) override
    {
        std::visit([&](auto& values) { fill(values, numSamples); }, m_values);
        encodeSamples(m_values, m_format.sampleFormat, bytes);
        return numSamples;
    }

private:
    template <class Value>
    void fill(std::vector<Value>& values, std::size_t numSamples)
    {
        // Integers fill their type.
        constexpr double FullScale =
            std::is_integral_v<Value> ? std::numeric_limits<std::int32_t>::max() : 1;
        values.clear();
        for (std::size_t i = 0; i < numSamples; ++i)
        {
            const double level = Amplitude * std::sin(2 * std::numbers::pi * m_phase);
            values.insert(values.end(), m_format.channels, static_cast<Value>(level * FullScale));
            m_phase = std::fmod(m_phase + m_turnsPerSample, 1.0);
        }
    }

    const double m_turnsPerSample;
    double m_phase = 0; // turns, below 1
    SampleValues m_values;
};

} // unnamed namespace

std::unique_ptr<AudioInput> makeToneInput(double frequencyHz, const kit::StreamFormat& format)
{
    return std::make_unique<ToneInput>(frequencyHz, format);
}

} // namespace vlx::tool
