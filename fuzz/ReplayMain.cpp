// Runs a target over stored inputs, in builds without the fuzzing engine.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace
{

namespace fs = std::filesystem;

/// @return the file itself, or the files of a directory by name
std::vector<fs::path> findFiles(const fs::path& path)
{
    if (!fs::is_directory(path))
        return {path};
    std::vector<fs::path> files;
    for (const fs::directory_entry& entry : fs::directory_iterator(path))
    {
        if (entry.is_regular_file())
            files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

/// @return whether the file could be read
bool replay(const fs::path& path)
{
    std::ifstream file(path, std::ios::binary);
    const std::string content{std::istreambuf_iterator<char>(file), {}};
    if (!file)
        return false;
    // Exactly as long as the input, so that the sanitizer sees a read beyond its end.
    const std::vector<std::uint8_t> bytes(content.begin(), content.end());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    return true;
}

} // unnamed namespace

int main(int argc, char** argv)
{
    std::size_t numInputs = 0;
    for (int i = 1; i < argc; ++i)
    {
        for (const fs::path& path : findFiles(argv[i]))
        {
            // Said first: a failing input stops the process.
            std::printf("%s\n", path.c_str());
            std::fflush(stdout);
            if (!replay(path))
            {
                std::fprintf(stderr, "%s: cannot be read\n", path.c_str());
                return 1;
            }
            ++numInputs;
        }
    }
    std::printf("%zu inputs\n", numInputs);
    if (numInputs == 0)
        std::fprintf(stderr, "Usage: %s FILE-OR-DIRECTORY...\n", argv[0]);
    return numInputs == 0 ? 1 : 0;
}
