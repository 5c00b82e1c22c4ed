// A consumer that plays on time: writes each frame to standard output a fixed time after its
// timestamp, so that two of them, wherever they read, put out the same sample at the same moment.
//
//   playing NAME LATENCY_MS [FRAMES] | aplay -f S16_LE -r 48000 -c 2

#include <chrono>
#include <iostream>
#include <string>
#include <thread>
#include <variant>

#include <unistd.h>

#include <vlxkit/Consumer.hpp>
#include <vlxkit/Logging.hpp>

int main(int argc, char** argv)
{
    const vlx::kit::Logging logging;
    const std::chrono::milliseconds latency(std::stoi(argv[2]));
    unsigned long wanted = argc > 3 ? std::stoul(argv[3]) : -1UL;

    // Frames wait in the consumer's queue, for longer than the latency.
    vlx::kit::Consumer consumer({.name = argv[1], .queue = {.time = 2 * latency}});
    if (const auto status = consumer.start(); !status)
    {
        std::cerr << status.getText() << std::endl;
        return 1;
    }
    for (unsigned long late = 0; wanted > 0;)
    {
        const auto item = consumer.read(); // waits
        const auto* const frame = std::get_if<vlx::kit::ReceivedFrame>(&item.value());
        if (frame == nullptr)
            continue;
        --wanted;
        // The steady clock is CLOCK_MONOTONIC. A frame that came before the stream's clock was
        // known is played as it came.
        const std::chrono::steady_clock::time_point due{
            std::chrono::nanoseconds(frame->getMonotonicTime().value_or(frame->arrival)) + latency};
        if (due < std::chrono::steady_clock::now())
            std::cerr << ++late << " frames late: take a longer latency" << std::endl;
        std::this_thread::sleep_until(due);
        if (::write(STDOUT_FILENO, frame->data.data(), frame->data.size()) <= 0)
            return 1;
    }
}
