#include "ReportFile.hpp"

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include <nlohmann/json.hpp>

#include <miscUtils/MiscUtils.hpp>

#include "ExitCodes.hpp"
#include "Messages.hpp"

namespace vlx::tool
{

void writeJson(const std::string& path, const nlohmann::ordered_json& document, int indentation)
{
    const auto replace = nlohmann::ordered_json::error_handler_t::replace;
    writeTextFile(path, document.dump(indentation, ' ', false, replace) + "\n");
}

void writeTextFile(const std::string& path, const std::string& text)
{
    if (path == "-")
    {
        std::fwrite(text.data(), 1, text.size(), stdout);
        return flushOutput();
    }
    std::error_code error;
    const bool isSpecial = std::filesystem::is_other(path, error);
    const std::string target = isSpecial ? path : path + ".new";
    std::ofstream file(target, std::ios::binary);
    file << text;
    file.close();
    if (file && (isSpecial || std::rename(target.c_str(), path.c_str()) == 0))
        return;
    const std::string reason = miscUtils::strerror_r_safe(errno);
    if (!isSpecial)
        std::filesystem::remove(target, error);
    throw CommandFailure(ExitCode::Failed, "cannot write \"" + path + "\": " + reason);
}

} // namespace vlx::tool
