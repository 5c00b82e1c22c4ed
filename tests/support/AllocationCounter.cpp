#include "support/AllocationCounter.hpp"

#include <atomic>
#include <cstdlib>
#include <new>

namespace
{

std::atomic<std::size_t> numAllocations = 0;
thread_local std::size_t numAllocationsOfThread = 0;

} // namespace

std::size_t vlx::testing::countAllocations()
{
    return numAllocations;
}

std::size_t vlx::testing::countAllocationsOfThread()
{
    return numAllocationsOfThread;
}

// The array forms call these. Only programs that ask for the count take this unit, and its
// operators, from the library of test helpers.
void* operator new(std::size_t size)
{
    numAllocations.fetch_add(1, std::memory_order_relaxed);
    ++numAllocationsOfThread;
    if (void* const memory = std::malloc(size))
        return memory;
    throw std::bad_alloc();
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept
{
    std::free(memory);
}
