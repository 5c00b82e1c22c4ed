// Runs a target over stored inputs, in builds without the fuzzing engine.

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv)
{
    int numInputs = 0;
    for (int i = 1; i < argc; ++i)
        for (const auto& entry : std::filesystem::directory_iterator(argv[i]))
        {
            std::puts(entry.path().c_str());
            std::fflush(stdout); // a failing input stops the process
            std::ifstream file(entry.path(), std::ios::binary);
            // Exactly as long as the input, so that the sanitizer sees a read beyond its end.
            const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
            LLVMFuzzerTestOneInput(
                reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
            ++numInputs;
        }
    std::printf("%d inputs\n", numInputs);
    return numInputs == 0 ? 1 : 0;
}
