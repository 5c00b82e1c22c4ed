#pragma once

#include <utility>

#include <unistd.h>

namespace vlx
{

/// Owns a descriptor and closes it.
class OwnedDescriptor
{
public:
    explicit OwnedDescriptor(int fd = -1) : m_fd(fd) {}

    ~OwnedDescriptor()
    {
        close();
    }

    OwnedDescriptor(OwnedDescriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}

    OwnedDescriptor& operator=(OwnedDescriptor&& other) noexcept
    {
        std::swap(m_fd, other.m_fd);
        return *this;
    }

    bool isOpen() const
    {
        return m_fd >= 0;
    }

    /// @return the descriptor, or -1
    int get() const
    {
        return m_fd;
    }

    void close()
    {
        if (isOpen())
            ::close(std::exchange(m_fd, -1));
    }

private:
    int m_fd;
};

} // namespace vlx
