#pragma once

#include <cstddef>
#include <vector>

/// For walks over lists of owned objects: erases null entries at `index` until a live one stands
/// there.
/// @return that entry, or null at the end of the list
template <class T> T* liveAt(std::vector<T*>& list, std::size_t index)
{
    while (index < list.size() && list[index] == nullptr)
        list.erase(list.begin() + static_cast<std::ptrdiff_t>(index));
    return index < list.size() ? list[index] : nullptr;
}
