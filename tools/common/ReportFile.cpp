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
        return;
    }
    // A new file takes the old one's name, also that of a link, whatever it leads to.
    const bool replaces = isReplaced(path);
    const std::string target =
        replaces
            ? std::filesystem::path(path).replace_filename(".vlx-" + makeRandomHex(16)).string()
            : path;
    constexpr int New = O_CREAT | O_EXCL | O_NOFOLLOW;
    constexpr int InPlace = O_APPEND | O_NOCTTY | O_NONBLOCK; // a FIFO without a reader fails
    const int fd =
        ::open(target.c_str(), O_WRONLY | O_CLOEXEC | (replaces ? New : InPlace), NewFileMode);
    int error = fd < 0 ? errno : 0;
    if (fd >= 0)
    {
        ::fcntl(fd, F_SETFL, O_APPEND); // waits from here on
        error = writeAndClose(fd, text);
        if (replaces && error == 0 && ::rename(target.c_str(), path.c_str()) != 0)
            error = errno;
        if (replaces && error != 0)
            ::unlink(target.c_str());
    }
    if (error != 0)
        throw CommandFailure(
            ExitCode::Failed,
            "cannot write " + quote(path) + ": " + miscUtils::strerror_r_safe(error));
}

} // namespace vlx::tool
