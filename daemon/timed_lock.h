#pragma once

#include <chrono>
#include <mutex>

/// Locks a mutex unless that takes longer than `patience`, whatever becomes of the date meanwhile.
/// @return true when it is locked
inline bool lockWithin(std::timed_mutex& mutex, std::chrono::seconds patience)
{
#ifdef __SANITIZE_THREAD__ // the sanitizer of g++ 12 misses the lock by the monotonic clock
    return mutex.try_lock_until(std::chrono::system_clock::now() + patience);
#else
    return mutex.try_lock_for(patience);
#endif
}
