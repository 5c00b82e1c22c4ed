#include "ReportFile.hpp"

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include <miscUtils/MiscUtils.hpp>

#include "ExitCodes.hpp"
#include "Messages.hpp"
#include "Text.hpp"

namespace vlx::tool
{

namespace
{

[[noreturn]] void fail(const std::string& path)
{
    const std::string reason = miscUtils::strerror_r_safe(errno);
    throw CommandFailure(ExitCode::Failed, "cannot write " + quote(path) + ": " + reason);
}

/// Writes to a device or a FIFO; one that nobody reads is an error, where others would wait for ever.
void writeInPlace(const std::string& path, const std::string& text)
{
    const int fd = ::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        fail(path);
    ::fcntl(fd, F_SETFL, 0);
    const bool written = ::write(fd, text.data(), text.size()) >= 0;
    ::close(fd);
    if (!written)
        fail(path);
}

} // unnamed namespace

bool isReplaced(const std::string& path)
{
    std::error_code error;
    return path != "-" && !std::filesystem::is_other(path, error);
}

void writeJson(const std::string& path, const nlohmann::ordered_json& document, int indentation)
{
    const auto replace = nlohmann::ordered_json::error_handler_t::replace;
    constexpr bool EscapeNonAscii = true; // a terminal may show it
    writeTextFile(path, document.dump(indentation, ' ', EscapeNonAscii, replace) + "\n");
}

void writeTextFile(const std::string& path, const std::string& text)
{
    if (path == "-")
    {
        std::fwrite(text.data(), 1, text.size(), stdout);
        return flushOutput();
    }
    if (!isReplaced(path))
        return writeInPlace(path, text);
    const std::string target = path + ".new";
    std::ofstream file(target, std::ios::binary);
    file << text;
    file.close();
    if (!file || std::rename(target.c_str(), path.c_str()) != 0)
    {
        const int error = errno;
        std::remove(target.c_str());
        errno = error;
        fail(path);
    }
}

} // namespace vlx::tool
