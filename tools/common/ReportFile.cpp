#include "ReportFile.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <string_view>

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

constexpr mode_t NewFileMode = 0666; // less the process's umask

[[noreturn]] void fail(const std::string& path, int error)
{
    throw CommandFailure(
        ExitCode::Failed, "cannot write " + quote(path) + ": " + miscUtils::strerror_r_safe(error));
}

/// Writes all of a text and closes the descriptor.
///
/// @return 0 or the error
int writeAndClose(int fd, std::string_view text)
{
    int error = 0;
    while (error == 0 && !text.empty())
    {
        const ssize_t count = ::write(fd, text.data(), text.size());
        error = count < 0 ? errno : 0;
        text.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
    if (::close(fd) != 0 && error == 0)
        error = errno;
    return error;
}

/// Writes to a device or a FIFO. A FIFO without a reader is an error: opening it would wait.
void writeInPlace(const std::string& path, const std::string& text)
{
    const int fd = ::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_APPEND | O_NOCTTY | O_CLOEXEC);
    if (fd < 0)
        fail(path, errno);
    ::fcntl(fd, F_SETFL, O_APPEND);
    if (const int error = writeAndClose(fd, text); error != 0)
        fail(path, error);
}

/// Writes a new file and gives it the name of the old one. Follows no link: one in the old file's
/// place is replaced, whatever it leads to.
///
/// @return 0 or the error
int replaceIn(int directoryFD, const std::string& name, const std::string& text)
{
    const std::string temporary = ".vlx-" + makeRandomHex(16);
    const int fd = ::openat(
        directoryFD, temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
        NewFileMode);
    if (fd < 0)
        return errno;
    int error = writeAndClose(fd, text);
    if (error == 0 && ::renameat(directoryFD, temporary.c_str(), directoryFD, name.c_str()) != 0)
        error = errno;
    if (error != 0)
        ::unlinkat(directoryFD, temporary.c_str(), 0);
    return error;
}

void replaceFile(const std::string& path, const std::string& text)
{
    const std::filesystem::path target(path);
    const std::string directory = target.has_parent_path() ? target.parent_path() : ".";
    const int directoryFD = ::open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (directoryFD < 0)
        fail(path, errno);
    const int error = replaceIn(directoryFD, target.filename(), text);
    ::close(directoryFD);
    if (error != 0)
        fail(path, error);
}

} // unnamed namespace

bool isReplaced(const std::string& path)
{
    // Also a file that "/dev/stdout" leads to: the link in /dev must stay.
    std::error_code error;
    return path != "-" && !path.starts_with("/dev/") && !path.starts_with("/proc/") &&
           !std::filesystem::is_other(path, error);
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
        flushOutput();
    }
    else if (isReplaced(path))
    {
        replaceFile(path, text);
    }
    else
    {
        writeInPlace(path, text);
    }
}

} // namespace vlx::tool
