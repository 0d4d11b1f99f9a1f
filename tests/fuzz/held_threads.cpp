#include "tests/fuzz/held_threads.h"

#include <utility>
#include <vector>

#include "common/own_thread.h"

namespace {

std::vector<std::function<void()>> held;

} // namespace

// In place of the daemon's own, which is then not linked in.
bool startOwnThread(std::function<void()> work) noexcept
{
    held.push_back(std::move(work));
    return true;
}

void HeldThreads::run()
{
    for (const std::function<void()>& work : std::exchange(held, {}))
        work();
}

void HeldThreads::forget()
{
    held.clear();
}
