#pragma once

#include <chrono>
#include <cstdint>

#include "tests/commands/fake_clock.h"

/// While one lives, time passes for the code under test when the input says so, and only then. One
/// at a time; the target is linked with set_clock_of() of CMakeLists.txt.
class FuzzClock {
public:
    void pass(std::chrono::milliseconds time)
    {
        elapsed_ += time;
        steady_.pass(time); // the other clock shows its own beginning and what passes here
    }

    /// Since it was made.
    std::chrono::milliseconds elapsed() const { return elapsed_; }

private:
    static constexpr std::chrono::seconds START{1000};

    std::chrono::milliseconds elapsed_{0};
    StoppedTime steady_;
    FakeClock monotonic_{START.count(), 0};
};
