#pragma once

#include <algorithm>
#include <chrono>

/// Pauses between attempts: each twice as long as the one before it, up to a limit, and up to a
/// quarter longer or shorter by chance, so that many who have lost the same
/// peer do not all come back at once.
/// Threads: one.
class GrowingPause {
public:
    using Milliseconds = std::chrono::milliseconds;

    GrowingPause(Milliseconds first, Milliseconds longest) : first_(first), longest_(longest), next_(first) {}

    /// @param chance  0 to 1, both included
    Milliseconds next(double chance)
    {
        const Milliseconds pause = next_;
        next_ = std::min(2 * next_, longest_);
        return std::chrono::duration_cast<Milliseconds>(pause * (0.75 + chance / 2));
    }

    /// It was there: the next pause is the first again.
    void reset() { next_ = first_; }

private:
    Milliseconds first_;
    Milliseconds longest_;
    Milliseconds next_;
};
