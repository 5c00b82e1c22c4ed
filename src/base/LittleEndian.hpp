#pragma once

// Little-endian fields of packets, independent of the host's byte order.

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include <vlx/VlxTypes.hpp>

namespace vlx
{

/// Writes an integer, lowest byte first.
template <std::unsigned_integral Integer>
void storeLittleEndian(std::uint8_t* destination, Integer value)
{
    for (std::size_t i = 0; i < sizeof(Integer); ++i)
        destination[i] = static_cast<std::uint8_t>(value >> (8 * i));
}

/// Writes an integer, lowest byte first. A shorter packet grows to the end of the field, filled
/// with zeros.
template <std::unsigned_integral Integer>
void writeLittleEndian(Buffer& packet, std::size_t offset, Integer value)
{
    packet.resize(std::max(packet.size(), offset + sizeof(Integer)));
    storeLittleEndian(&packet[offset], value);
}

/// Reads fields in order, never beyond the end. After the first read that finds too few bytes, all
/// reads fail and the position stays.
class ByteCursor
{
public:
    explicit ByteCursor(const ByteView& bytes, std::size_t position = 0)
        : m_bytes(bytes), m_position(position), m_ok(position <= bytes.size())
    {
    }

    bool isOk() const
    {
        return m_ok;
    }

    template <std::unsigned_integral Integer>
    std::optional<Integer> read()
    {
        if (!canRead(sizeof(Integer)))
            return std::nullopt;

        std::uint64_t value = 0;
        for (std::size_t i = 0; i < sizeof(Integer); ++i)
            value |= static_cast<std::uint64_t>(m_bytes[m_position + i]) << (8 * i);
        m_position += sizeof(Integer);
        return static_cast<Integer>(value);
    }

    /// @return the bytes up to the next 0 byte, which is skipped
    std::optional<std::string> readTerminatedString()
    {
        if (!m_ok)
            return std::nullopt;

        const auto begin = m_bytes.begin() + static_cast<std::ptrdiff_t>(m_position);
        const auto end = std::find(begin, m_bytes.end(), std::uint8_t{0});
        m_ok = end != m_bytes.end();
        if (!m_ok)
            return std::nullopt;

        std::string text(begin, end);
        m_position += text.size() + 1;
        return text;
    }

    /// @return the bytes that have not been read
    /// @pre isOk()
    ByteView getRest() const
    {
        return m_bytes.subspan(m_position);
    }

private:
    bool canRead(std::size_t size)
    {
        m_ok = m_ok && m_bytes.size() - m_position >= size;
        return m_ok;
    }

    ByteView m_bytes;
    std::size_t m_position; // at most the size, unless m_ok is false from the start
    bool m_ok;
};

} // namespace vlx
