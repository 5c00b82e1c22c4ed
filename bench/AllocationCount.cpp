#include "AllocationCount.hpp"

#include <cstdlib>
#include <new>

// The array and the nothrow forms of the standard library end up here.

void* operator new(std::size_t size)
{
    vlx::bench::allocationCount.fetch_add(1, std::memory_order_relaxed);
    if (void* const memory = std::malloc(size ? size : 1))
        return memory;
    throw std::bad_alloc();
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}
