#include "support/RunDirectory.hpp"

#include <cstdlib>
#include <filesystem>

namespace vlx::bench
{

RunDirectory::RunDirectory()
{
    const char* base = std::getenv("TMPDIR");
    std::string path = std::string(base && *base ? base : "/tmp") + "/vbXXXXXX";
    if (!mkdtemp(path.data()))
        return;
    m_path = path;
}

RunDirectory::~RunDirectory()
{
    std::error_code ignored;
    if (!m_path.empty())
        std::filesystem::remove_all(m_path, ignored);
}

} // namespace vlx::bench
