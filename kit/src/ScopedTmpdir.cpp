#include "ScopedTmpdir.hpp"

#include <cstdlib>
#include <filesystem>
#include <system_error>

#include <SenderDirectory.hpp>

namespace vlx::kit
{

namespace
{

constexpr const char* Variable = "TMPDIR";

std::recursive_mutex environmentMutex;

} // unnamed namespace

ScopedTmpdir::ScopedTmpdir(const std::string& directory) : m_lock(environmentMutex)
{
    if (const char* const value = std::getenv(Variable))
        m_former = value;
    const std::string& wanted = directory.empty() ? m_former.value_or("") : directory;
    if (wanted.empty())
        return;

    std::error_code error;
    const std::string absolute = std::filesystem::absolute(wanted, error);
    m_changed = !error && absolute != getBaseDirectory();
    if (m_changed)
        ::setenv(Variable, absolute.c_str(), 1);
}

ScopedTmpdir::~ScopedTmpdir()
{
    if (!m_changed)
        return;
    if (m_former)
        ::setenv(Variable, m_former->c_str(), 1);
    else
        ::unsetenv(Variable);
}

} // namespace vlx::kit
