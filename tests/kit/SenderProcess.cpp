// Sends nothing under a name until its standard input ends: somebody else's sender, for the tests.
// Prints the path of its socket file once it can be joined.

#include <iostream>
#include <string>

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
    if (!producer.open(vlx::kit::StreamFormat()))
    {
        std::cerr << producer.getProblem() << '\n';
        return 1;
    }
    std::cout << producer.getSocketFile() << std::endl;
    std::cin.ignore();
}
