#pragma once

// Assertions are active in every build: a broken precondition stops the process.

#include <cassert>

#ifdef NDEBUG
#error "Assertions are part of this library: build it without NDEBUG"
#endif
