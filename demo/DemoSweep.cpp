/// Writes the demonstration's audio file: a chord whose voices sweep upwards, in 24 bits, so that
/// hardly any two samples are alike and a wrong, missing or repeated one shows.

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <numbers>
#include <vector>

#include <sndfile.h>

namespace
{

constexpr int Rate = 48000;
constexpr int Channels = 2;
constexpr double Seconds = 6.0;
constexpr double Octaves = 1.5; // that each voice climbs
constexpr double Level = 0.2;   // of each voice, below a third
constexpr double RootHz[Channels] = {110.0, 111.5};
constexpr double Chord[] = {1.0, 1.25, 1.5}; // major triad

double getSample(int channel, double time)
{
    // Integral of a frequency that grows exponentially.
    const double growth = Octaves * std::numbers::ln2 / Seconds;
    const double turns = RootHz[channel] * std::expm1(growth * time) / growth;
    double sum = 0;
    for (const double voice : Chord)
        sum += Level * std::sin(2 * std::numbers::pi * turns * voice);
    return sum;
}

std::vector<std::int32_t> makeSweep()
{
    std::vector<std::int32_t> values;
    for (int i = 0; i < static_cast<int>(Rate * Seconds); ++i)
    {
        for (int channel = 0; channel < Channels; ++channel)
            values.push_back(static_cast<std::int32_t>(
                std::lround(getSample(channel, static_cast<double>(i) / Rate) * INT32_MAX)));
    }
    return values;
}

} // unnamed namespace

int main(int argc, char** argv)
{
    if (argc != 2)
    {
        std::fprintf(stderr, "usage: demo-sweep FILE.wav\n");
        return 2;
    }

    SF_INFO info{};
    info.samplerate = Rate;
    info.channels = Channels;
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_24;
    SNDFILE* const file = ::sf_open(argv[1], SFM_WRITE, &info);
    if (file == nullptr)
    {
        std::fprintf(stderr, "demo-sweep: %s: %s\n", argv[1], ::sf_strerror(nullptr));
        return 1;
    }
    const std::vector<std::int32_t> values = makeSweep();
    const auto size = static_cast<sf_count_t>(values.size());
    const bool written = ::sf_write_int(file, values.data(), size) == size;
    return ::sf_close(file) == 0 && written ? 0 : 1;
}
