#pragma once

// Assertions are part of the product: whatever breaks a precondition stops the process, in every
// build.

#include <cassert>

#ifdef NDEBUG
#error "Assertions are part of this library: build it without NDEBUG"
#endif
