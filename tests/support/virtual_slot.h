#pragma once

#include <cstddef>
#include <cstring>

/// Place of a virtual operation in its class's table, the two destructors being 0 and 1. Reads the
/// pointer as the Itanium C++ ABI lays it out for x86-64 and PowerPC (section 2.3): 1 + offset in
/// the table.
template <class Class, class Result, class... Arguments>
std::size_t virtualSlot(Result (Class::*operation)(Arguments...))
{
    std::ptrdiff_t code = 0;
    static_assert(sizeof operation == 2 * sizeof code);
    std::memcpy(&code, &operation, sizeof code);
    return static_cast<std::size_t>(code - 1) / sizeof(void*);
}
