// A program that asks for the count gets these operators in place of the library's.
#include "tests/support/allocation_count.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

std::atomic<unsigned> count{0};

void* counted(std::size_t bytes)
{
    ++count;
    if (void* const memory = std::malloc(bytes != 0 ? bytes : 1)) return memory;
    throw std::bad_alloc();
}

} // namespace

unsigned allocationCount()
{
    return count;
}

void* operator new(std::size_t bytes)
{
    return counted(bytes);
}

void* operator new[](std::size_t bytes)
{
    return counted(bytes);
}

void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept
{
    ++count;
    return std::malloc(bytes != 0 ? bytes : 1);
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, const std::nothrow_t&) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory, std::size_t) noexcept
{
    std::free(memory);
}
