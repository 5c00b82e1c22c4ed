// Parsing and producing a well-formed InitialInfo packet gives the same bytes. Malformed packets
// are skipped: the documented assertion would stop the process.

#include <vlx/SideChannel.hpp>

#include "support/Fuzz.hpp"

namespace
{

using namespace vlx;
using fuzz::check;

bool isWellFormed(ByteView rest)
{
    // Number of bytes before each string: the version; the port and the two protocols.
    for (const std::size_t bytesBefore : {2U, 4U})
    {
        if (rest.size() < bytesBefore)
            return false;
        rest = rest.subspan(bytesBefore);
        const auto end = std::find(rest.begin(), rest.end(), 0);
        if (end == rest.end())
            return false;
        rest = rest.subspan(static_cast<std::size_t>(end - rest.begin()) + 1);
    }
    return true;
}

} // unnamed namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const ByteView packet(data, size);
    if (!isWellFormed(packet))
        return 0;

    const InitialInfo info = parseInitialInfoPacket(packet);
    check(
        fuzz::startsWith(packet, produceInitialInfoPacket(info)),
        "a packet that was read is produced again");
    return 0;
}
