// A program that asks for the count gets these operators in place of the library's.
#include "tests/support/allocation_count.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

std::atomic<unsigned> count{0};
thread_local bool noMemory = false;
thread_local bool noMemoryWithoutThrowing = false;

void* counted(std::size_t bytes)
{
    ++count;
    if (noMemory) throw std::bad_alloc();
    if (void* const memory = std::malloc(bytes != 0 ? bytes : 1)) return memory;
    throw std::bad_alloc();
}

} // namespace

unsigned allocationCount()
{
    return count;
}

NoMemory::NoMemory(Whom whom)
{
    noMemory = whom == EVERYBODY;
    noMemoryWithoutThrowing = true;
}

NoMemory::~NoMemory()
{
    noMemory = false;
    noMemoryWithoutThrowing = false;
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
    if (noMemoryWithoutThrowing) return nullptr;
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
