#include "framework/bundled/stuck_queues.h"

#include <algorithm>

bool TStuckQueues::has(long address) const
{
    if (count_.load(std::memory_order_relaxed) == 0) return false;
    const std::scoped_lock lock(lock_);
    const auto end = addresses_.begin() + count_.load();
    return std::find(addresses_.begin(), end, address) != end;
}

void TStuckQueues::add(long address)
{
    const std::scoped_lock lock(lock_);
    std::uint32_t count = count_.load();
    const auto end = addresses_.begin() + count;
    if (std::find(addresses_.begin(), end, address) != end) return;
    if (count == CAPACITY) {
        std::copy(addresses_.begin() + 1, addresses_.end(), addresses_.begin());
        --count;
    }
    addresses_[count] = address;
    count_.store(count + 1);
}

void TStuckQueues::remove(long address)
{
    if (count_.load(std::memory_order_relaxed) == 0) return;
    const std::scoped_lock lock(lock_);
    const auto end = addresses_.begin() + count_.load();
    const auto kept = std::remove(addresses_.begin(), end, address);
    count_.store(static_cast<std::uint32_t>(kept - addresses_.begin()));
}
