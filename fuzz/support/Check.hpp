#pragma once

#include <cstdio>
#include <cstdlib>

namespace vlx::fuzz
{

/// Stops the process where a target finds something wrong, in every build.
///
/// @param text  what should have held
inline void check(bool holds, const char* text)
{
    if (holds)
        return;
    std::fprintf(stderr, "\nDoes not hold: %s\n", text);
    std::abort();
}

} // namespace vlx::fuzz
