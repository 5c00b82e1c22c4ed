#pragma once

// The layout of a sender's directory, its name, its mode and its socket file, and where it lies.

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <string>
#include <string_view>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "base/OwnedDescriptor.hpp"

namespace vlx
{

/// Prefix of the name of every sender's directory.
inline constexpr const char* SenderDirectoryPrefix = "VlxSender-";

/// What mkdtemp() replaces by letters and digits in the name of a sender's directory.
inline constexpr const char* SenderDirectoryPlaceholder = "XXXXXX";

inline constexpr mode_t SenderDirectoryMode = 0777;

/// Name of the main channel's socket file, the only entry of a sender's directory.
inline constexpr const char* SocketFileName = "nanomsgChannel.ipc";

/// Mode that a receiver in Pipeline sets on the socket file, which it has created.
inline constexpr mode_t PipelineSocketMode = 0622;

inline constexpr const char* IpcScheme = "ipc://";

/// Longest path of a socket file: sun_path without its terminating 0 byte.
inline constexpr std::size_t MaxSocketPathLength = sizeof(sockaddr_un::sun_path) - 1;

/// @return the base directory, in which every sender creates its own; read from the environment at
///         each call
inline std::string getBaseDirectory()
{
    const char* const directory = std::getenv("TMPDIR");
    return directory != nullptr ? directory : "/tmp/vlx";
}

/// @param chosen  directory set by the application; empty: from the environment
/// @return the base directory, in which every sender creates its own
inline std::string getBaseDirectory(const std::string& chosen)
{
    return chosen.empty() ? getBaseDirectory() : chosen;
}

/// @return path of the directory to create, as mkdtemp() takes it
inline std::string makeSenderDirectoryTemplate(const std::string& baseDirectory)
{
    return baseDirectory + "/" + SenderDirectoryPrefix + SenderDirectoryPlaceholder;
}

/// @param directory  path of a sender's directory
inline std::string makeSocketFilePath(const std::string& directory)
{
    return directory + "/" + SocketFileName;
}

/// @param socketFile  path of a socket file
inline std::string makeSocketURI(const std::string& socketFile)
{
    return IpcScheme + socketFile;
}

/// @return path of the socket file in a main channel's URI; empty if it has another scheme
inline std::string toSocketFilePath(std::string_view uri)
{
    const std::string_view scheme = IpcScheme;
    return std::string(uri.starts_with(scheme) ? uri.substr(scheme.size()) : std::string_view());
}

/// @param name  name of an entry of a base directory, without the path
inline bool isSenderDirectoryName(std::string_view name)
{
    const std::string_view prefix = SenderDirectoryPrefix;
    return name.starts_with(prefix) &&
           name.size() == prefix.size() + std::string_view(SenderDirectoryPlaceholder).size() &&
           std::all_of(
               name.begin() + static_cast<std::ptrdiff_t>(prefix.size()), name.end(),
               [](char c) {
                   return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') ||
                          (c >= 'a' && c <= 'z');
               });
}

/// @param path  absolute path or URI of a file
/// @return name, without its path, of the sender's directory that contains the file; empty if the
///         file is in no sender's directory
inline std::string findSenderDirectoryName(std::string_view path)
{
    const std::size_t end = path.rfind('/');
    if (end == path.npos)
        return {};
    const std::string_view directory = path.substr(0, end);
    const std::string_view name = directory.substr(directory.rfind('/') + 1); // npos + 1 is 0
    return std::string(name.starts_with(SenderDirectoryPrefix) ? name : std::string_view());
}

/// @return path of the sender's directory; empty if no sender has such a URI
inline std::string findSenderDirectory(std::string_view uri)
{
    const std::string path = toSocketFilePath(uri);
    const std::size_t slash = path.rfind('/');
    const bool isSenders = path.starts_with('/') && path.size() <= MaxSocketPathLength &&
                           path.substr(slash + 1) == SocketFileName &&
                           isSenderDirectoryName(findSenderDirectoryName(path));
    return isSenders ? path.substr(0, slash) : std::string();
}

/// Changes the mode of a file of the caller's own. By descriptor: another process may replace the
/// file meanwhile, for example by a link, which chmod() follows.
///
/// @param fd    may be opened with O_PATH
/// @param type  S_IFSOCK or S_IFDIR
/// @return 0; otherwise an error number, with nothing changed: ELOOP for a link, ENOTSOCK or
///         ENOTDIR for another kind of file, EPERM for another user's file, or the system's error
inline int changeOwnMode(int fd, mode_t type, mode_t mode)
{
    struct stat status = {};
    if (::fstat(fd, &status) != 0)
        return errno;
    if (S_ISLNK(status.st_mode))
        return ELOOP;
    if ((status.st_mode & S_IFMT) != type)
        return type == S_IFSOCK ? ENOTSOCK : ENOTDIR;
    if (status.st_uid != ::geteuid())
        return EPERM;
    // fchmod() refuses a descriptor opened with O_PATH.
    const std::string throughDescriptor = "/proc/self/fd/" + std::to_string(fd);
    return ::chmod(throughDescriptor.c_str(), mode) == 0 ? 0 : errno;
}

/// Changes the mode of the caller's own socket file, and never of another file.
///
/// @return as changeOwnMode(), or the error of opening the file
inline int changeSocketFileMode(const std::string& path, mode_t mode)
{
    const OwnedDescriptor file(::open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    return file.isOpen() ? changeOwnMode(file.get(), S_IFSOCK, mode) : errno;
}

} // namespace vlx
