#pragma once

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <cstdint>

#include <vlx/VlxTypes.hpp>

namespace vlx::fuzz
{

/// Takes an input apart from its front, so that a target can read its steps from it. At the end
/// everything read is 0 or empty.
class InputReader
{
public:
    InputReader(const std::uint8_t* data, std::size_t size) : m_rest(data, size) {}

    bool isEmpty() const
    {
        return m_rest.empty();
    }

    /// @return the next bytes as an integer of the machine
    template <std::unsigned_integral Integer = std::uint8_t>
    Integer take()
    {
        Integer value = 0;
        const ByteView bytes = takeBytes(sizeof(Integer));
        std::copy(bytes.begin(), bytes.end(), reinterpret_cast<unsigned char*>(&value));
        return value;
    }

    /// @return the next bytes, fewer if there are no more
    ByteView takeBytes(std::size_t count)
    {
        const ByteView bytes = m_rest.subspan(0, std::min(count, m_rest.size()));
        m_rest = m_rest.subspan(bytes.size());
        return bytes;
    }

    /// @return the next bytes behind a length of one byte
    ByteView takeBlock()
    {
        return takeBytes(take());
    }

private:
    ByteView m_rest;
};

} // namespace vlx::fuzz
