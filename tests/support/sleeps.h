#pragma once

#include <algorithm>
#include <sys/resource.h>

/// How often this thread has given the processor away, to wait for something.
inline long threadSleeps()
{
    rusage used{};
    ::getrusage(RUSAGE_THREAD, &used);
    return used.ru_nvcsw;
}

/// @return how often `act()` has waited for something, in the best of a few tries: the system may
///     have reasons of its own for single waits. 0 for what never waits, on a machine of any speed
template <class Act> long fewestSleeps(Act act)
{
    constexpr int TRIES = 10;
    long fewest = -1;
    for (int i = 0; i < TRIES && fewest != 0; ++i) {
        const long before = threadSleeps();
        act();
        const long sleeps = threadSleeps() - before;
        fewest = fewest < 0 ? sleeps : std::min(fewest, sleeps);
    }
    return fewest;
}
