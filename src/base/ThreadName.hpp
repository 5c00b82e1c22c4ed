#pragma once

#include <pthread.h>

namespace vlx
{

/// Names the calling thread for debuggers and process listings.
///
/// @param name  at most 15 characters
inline void nameThisThread(const char* name)
{
    ::pthread_setname_np(::pthread_self(), name);
}

} // namespace vlx
