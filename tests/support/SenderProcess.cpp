// Sends under a name until its standard input ends: somebody else's sender, for the tests. Prints
// the path of its socket file once it can be joined.

#include <chrono>
#include <iostream>
#include <thread>

#include <vlxkit/Logging.hpp>
#include <vlxkit/Producer.hpp>

int main(int argc, char** argv)
{
    if (argc != 3)
        return 2;
    const vlx::kit::Logging logging;
    vlx::kit::ProducerOptions options;
    options.name = argv[1];
    options.protocol = vlx::toNanomsgProtocol(argv[2]);
    vlx::kit::Producer producer(options);
    const vlx::kit::Status opened = producer.open(vlx::kit::StreamFormat());
    if (!opened)
    {
        std::cerr << opened.getText() << '\n';
        return 1;
    }
    std::cout << producer.getSocketFile() << std::endl;
    std::thread sending(
        [&producer]
        {
            vlx::TimeValue timestamp = 0;
            while (
                producer.send(timestamp, 1, vlx::Buffer(100, static_cast<std::uint8_t>(timestamp))))
            {
                ++timestamp;
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
            }
        });
    std::cin.ignore();
    producer.stop();
    sending.join();
}
