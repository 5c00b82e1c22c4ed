#pragma once

#include <cstdint>
#include <string>

namespace vlx
{

/// @return a FourCC as its four characters, lowest byte first, those below 0x20 shown as spaces
inline std::string printFourcc(std::uint32_t fourcc)
{
    std::string text;
    for (unsigned shift = 0; shift < 32; shift += 8)
    {
        const auto byte = static_cast<unsigned char>(fourcc >> shift);
        text += byte < 0x20 ? ' ' : static_cast<char>(byte);
    }
    return text;
}

} // namespace vlx
