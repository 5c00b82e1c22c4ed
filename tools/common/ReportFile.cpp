#include "ReportFile.hpp"

#include <cerrno>
#include <cstdio>

#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <unistd.h>

#include <miscUtils/MiscUtils.hpp>

namespace vlx::tool
{

namespace
{

bool isSpecialFile(const std::string& path)
{
    struct stat status
    {
    };
    return ::stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode);
}

bool writeText(const std::string& path, const std::string& text)
{
    std::FILE* const file = std::fopen(path.c_str(), "we");
    if (file == nullptr)
        return false;
    const bool written = std::fwrite(text.data(), 1, text.size(), file) == text.size();
    const int writeErrno = errno;
    const bool closed = std::fclose(file) == 0;
    if (!written)
        errno = writeErrno;
    return written && closed;
}

bool writeToStandardOutput(const std::string& text)
{
    return std::fwrite(text.data(), 1, text.size(), stdout) == text.size() &&
           std::fflush(stdout) == 0;
}

bool replaceFile(const std::string& path, const std::string& text)
{
    const std::string temporary = path + ".new";
    if (writeText(temporary, text) && std::rename(temporary.c_str(), path.c_str()) == 0)
        return true;
    const int savedErrno = errno;
    ::unlink(temporary.c_str());
    errno = savedErrno;
    return false;
}

} // unnamed namespace

std::string writeReportFile(const std::string& path, const nlohmann::ordered_json& report)
{
    // Names and paths may be any bytes; what is no UTF-8 becomes a replacement character.
    return writeTextFile(
        path, report.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n");
}

std::string writeTextFile(const std::string& path, const std::string& text)
{
    if (path == "-")
        return writeToStandardOutput(text)
                   ? std::string()
                   : "cannot write to standard output: " + miscUtils::strerror_r_safe(errno);
    if (isSpecialFile(path) ? writeText(path, text) : replaceFile(path, text))
        return {};
    return "cannot write \"" + path + "\": " + miscUtils::strerror_r_safe(errno);
}

} // namespace vlx::tool
