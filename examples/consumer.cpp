#include <iostream>

#include <vlxkit/Consumer.hpp>
#include <vlxkit/Logging.hpp>

int main()
{
    const vlx::kit::Logging logging;
    vlx::kit::ConsumerCallbacks callbacks;
    callbacks.onFormat = [](const vlx::kit::StreamFormat& format)
    { std::cout << toText(format) << std::endl; };
    callbacks.onFrame = [](const vlx::kit::Frame& frame)
    { std::cout << frame.timestamp << " ns: " << frame.data.size() << " bytes" << std::endl; };
    callbacks.onEvent = [](const vlx::kit::ConsumerEvent& event)
    { std::cout << event.text << std::endl; };

    vlx::kit::Consumer consumer({.name = "kitchen-radio"}, callbacks);
    if (!consumer.start())
        return 1;
    std::cin.get();
}
