#include "FileKind.hpp"

#include <algorithm>
#include <array>

#include "ByteSource.hpp"

namespace vlx::tool
{

namespace
{

struct Kind
{
    const char* name;
    std::string_view begin; // '.' stands for any byte
};

constexpr std::size_t LongestBegin = 12;

constexpr std::array<Kind, 11> Kinds = {
    {{"WAV", "RIFF....WAVE"},
     {"WAV", "RIFX....WAVE"},
     {"WAV", "RF64....WAVE"},
     {"FLAC", "fLaC"},
     {"Ogg", "OggS"},
     {"MP3", "ID3"},
     {"AIFF", "FORM....AIF"},
     {"AU", ".snd...."}, // an offset follows
     {"CAF", "caff"},
     {"W64", "riff"},
     {"Matroska", "\x1A\x45\xDF\xA3"}}};

/// @return whether as much as there is of a file is as a kind begins
bool resembles(const Kind& kind, std::string_view begin)
{
    const std::size_t size = std::min(begin.size(), kind.begin.size());
    return std::equal(
        kind.begin.begin(), kind.begin.begin() + static_cast<std::ptrdiff_t>(size), begin.begin(),
        [&](const char& known, char c)
        {
            const bool isAny = known == '.' && &known != kind.begin.data();
            return isAny || known == c;
        });
}

} // unnamed namespace

std::string_view peekFileBegin(ByteSource& source, const Deadline& deadline)
{
    const auto isEnough = [](std::string_view begin)
    {
        return !begin.empty() && std::none_of(
                                     Kinds.begin(), Kinds.end(),
                                     [&](const Kind& kind) { return resembles(kind, begin); });
    };
    return source.peek(LongestBegin, deadline, isEnough);
}

std::string getFileKind(std::string_view begin)
{
    const auto* const kind = std::find_if(
        Kinds.begin(), Kinds.end(),
        [&](const Kind& candidate)
        { return begin.size() >= candidate.begin.size() && resembles(candidate, begin); });
    return kind == Kinds.end() ? std::string() : kind->name;
}

} // namespace vlx::tool
