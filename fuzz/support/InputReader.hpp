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

    /// @return the next bytes as an integer, lowest first
    template <std::unsigned_integral Integer = std::uint8_t>
    Integer take()
    {
        std::uint64_t value = 0;
        std::uint64_t shift = 0;
        for (const unsigned char byte : takeBytes(sizeof(Integer)))
        {
            value |= std::uint64_t{byte} << shift;
            shift += 8;
        }
        return static_cast<Integer>(value);
    }

    /// @return the next bytes, fewer if there are no more
    ByteView takeBytes(std::size_t count)
    {
        const ByteView bytes = m_rest.subspan(0, std::min(count, m_rest.size()));
        m_rest = m_rest.subspan(bytes.size());
        return bytes;
    }

    /// @return bytes behind a length of one byte
    ByteView takeBlock()
    {
        return takeBytes(take());
    }

    ByteView takeRest()
    {
        return takeBytes(m_rest.size());
    }

private:
    ByteView m_rest;
};

} // namespace vlx::fuzz
