#include "SocketFile.hpp"

#include <cerrno>
#include <chrono>
#include <string_view>

#include <sys/stat.h>
#include <vlxkit/Discovery.hpp>

#include <miscUtils/MiscUtils.hpp>
#include <vlx/SideChannel.hpp>

namespace vlx::kit
{

namespace
{

constexpr auto AnswerTimeout = std::chrono::milliseconds(1000);
constexpr std::string_view IpcScheme = "ipc://";

mode_t toFileMode(SocketMode mode)
{
    switch (mode)
    {
    case SocketMode::Owner:
        return 0600;
    case SocketMode::Group:
        return 0660;
    case SocketMode::All:
        return 0666;
    }
    return 0600;
}

} // unnamed namespace

std::string setSocketFileMode(const std::string& name, SocketMode mode)
{
    // The file's path is known from outside only by what the sender announces.
    const SenderProbe answer = probeSender(name, AnswerTimeout);
    if (!answer.initialInfo)
        return "the sender \"" + name + "\" does not say where its socket file is";
    if (answer.initialInfo->nanomsgProtocol == NanomsgProtocol::Pipeline)
        return {};

    std::string path = answer.initialInfo->nanomsgURI;
    if (path.starts_with(IpcScheme))
        path.erase(0, IpcScheme.size());
    if (::chmod(path.c_str(), toFileMode(mode)) != 0)
        return "cannot set the mode of \"" + path + "\": " + miscUtils::strerror_r_safe(errno);
    return {};
}

} // namespace vlx::kit
