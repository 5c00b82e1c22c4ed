#pragma once

#include <cstdlib>

#include <sys/resource.h>
#include <unistd.h>

namespace vlx::testing
{

/// Limits what the process may use of a resource, while it lives.
class ResourceLimit
{
public:
    /// @param resource  RLIMIT_NOFILE and the like
    ResourceLimit(__rlimit_resource resource, rlim_t limit) : m_resource(resource)
    {
        ::getrlimit(m_resource, &m_before);
        const rlimit changed{limit, m_before.rlim_max};
        ::setrlimit(m_resource, &changed);
    }

    ~ResourceLimit()
    {
        ::setrlimit(m_resource, &m_before);
    }

    ResourceLimit(const ResourceLimit&) = delete;
    ResourceLimit& operator=(const ResourceLimit&) = delete;

private:
    const __rlimit_resource m_resource;
    rlimit m_before{};
};

/// While it lives, no thread can be started. For death tests: the process gives up being root, whom
/// this limit does not concern.
class NoThreads : public ResourceLimit
{
public:
    NoThreads() : ResourceLimit(RLIMIT_NPROC, becomeNobody()) {}

private:
    static rlim_t becomeNobody()
    {
        constexpr uid_t Nobody = 65534;
        if (::geteuid() == 0 && ::setuid(Nobody) != 0)
            std::abort();
        return 0;
    }
};

} // namespace vlx::testing
