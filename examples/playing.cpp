// A consumer that plays on time: writes each frame to standard output a fixed time after its
// timestamp, so that several players output the same sample at the same moment.
//
//   playing NAME LATENCY_MS [FRAMES] | aplay -f S16_LE -r 48000 -c 2

#include <chrono>
#include <condition_variable>
#include <deque>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>

#include <unistd.h>

#include <vlxkit/Consumer.hpp>
#include <vlxkit/Logging.hpp>

namespace
{

struct Waiting
{
    vlx::TimeValue timestamp;
    vlx::Buffer data;
};

constexpr std::size_t MaxWaiting = 1000; // frames; the oldest are dropped

std::mutex mutex;
std::condition_variable condition;
std::deque<Waiting> queue; // guarded by mutex

// The receiving thread only passes the frame on: waiting there would lose the next one.
void onFrame(const vlx::kit::Frame& frame)
{
    const std::lock_guard<std::mutex> lock(mutex);
    queue.push_back({frame.timestamp, frame.data});
    if (queue.size() > MaxWaiting)
        queue.pop_front();
    condition.notify_one();
}

Waiting takeFrame()
{
    std::unique_lock<std::mutex> lock(mutex);
    condition.wait(lock, [] { return !queue.empty(); });
    Waiting frame = std::move(queue.front());
    queue.pop_front();
    return frame;
}

} // namespace

int main(int argc, char** argv)
{
    const vlx::kit::Logging logging;
    const std::chrono::milliseconds latency(std::stoi(argv[2]));
    unsigned long wanted = argc > 3 ? std::stoul(argv[3]) : -1UL;

    vlx::kit::Consumer consumer({.name = argv[1]}, {.onFrame = onFrame});
    if (!consumer.start())
        return 1;
    for (unsigned long late = 0; wanted > 0; --wanted)
    {
        const Waiting frame = takeFrame();
        // The steady clock is the machine's monotonic clock, the clock of these timestamps.
        const std::chrono::steady_clock::time_point due{
            std::chrono::nanoseconds(frame.timestamp) + latency};
        if (due < std::chrono::steady_clock::now())
            std::cerr << ++late << " frames late: take a longer latency" << std::endl;
        std::this_thread::sleep_until(due);
        if (::write(STDOUT_FILENO, frame.data.data(), frame.data.size()) <= 0)
            return 1;
    }
}
