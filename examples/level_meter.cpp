// A level meter that survives every fault of its sender: it may be missing, die, restart, change
// its format, hang, or send an unknown codec. Prints ten lines a second, until Enter.
//
//   level_meter NAME

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

#include <poll.h>

#include <vlxkit/Consumer.hpp>
#include <vlxkit/Logging.hpp>

namespace
{

constexpr int BarLength = 60; // one character per decibel
constexpr int IntervalMs = 100;

// The receiving thread raises the peak, the main thread reads and resets it.
std::atomic<int> peak = 0;            // of 16 bits
std::atomic<bool> isReadable = false; // this meter reads 16-bit samples only

void onFormat(const vlx::kit::StreamFormat& format)
{
    isReadable = format.sampleFormat == audioUtils::PcmFormat::S16LE;
    std::cout << toText(format) << (isReadable ? "" : ": no meter for it") << std::endl;
}

// Must be fast: a frame that arrives meanwhile is lost.
void onFrame(const vlx::kit::Frame& frame)
{
    if (!isReadable)
        return;
    int highest = peak;
    for (std::size_t i = 0; i + 1 < frame.data.size(); i += 2)
    {
        const unsigned bits = frame.data[i] | static_cast<unsigned>(frame.data[i + 1]) << 8;
        highest = std::max(highest, std::abs(static_cast<std::int16_t>(bits)));
    }
    peak = highest;
}

void printLevel(const vlx::kit::ConsumerStatistics& statistics)
{
    const double level = 20 * std::log10(std::max(peak.exchange(0), 1) / 32768.0);
    const int length = std::max(BarLength + static_cast<int>(level), 0);
    std::cout << std::string(static_cast<std::size_t>(length), '#') << ' ' << std::lround(level)
              << " dBFS, " << statistics.gaps << " gaps" << std::endl;
}

} // namespace

int main(int, char** argv)
{
    const vlx::kit::Logging logging;
    vlx::kit::ConsumerCallbacks callbacks;
    callbacks.onFormat = onFormat;
    callbacks.onFrame = onFrame;
    callbacks.onEvent = [](const vlx::kit::ConsumerEvent& event)
    { std::cout << event.text << std::endl; };

    vlx::kit::Consumer consumer({.name = argv[1]}, callbacks);
    const vlx::kit::Status started = consumer.start();
    if (!started)
    {
        std::cerr << started.getText() << std::endl;
        return 1;
    }
    pollfd enter{0, POLLIN, 0};
    while (::poll(&enter, 1, IntervalMs) == 0)
    {
        const vlx::kit::ConsumerStatistics statistics = consumer.getStatistics();
        if (statistics.state == vlx::Receiver::State::Running && isReadable)
            printLevel(statistics);
    }
}
