#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "tests/support/waiting.h"

/// What a scenario gives in which somebody waits who does not wait for long. It is played again
/// when the machine has held it up for so long that patience may have ended.
template <class Scenario> std::vector<std::string> undisturbed(Scenario scenario)
{
    constexpr double PATIENCE_MS = 250;
    for (int i = 0; i < 100; ++i) {
        const Stopwatch watch;
        std::vector<std::string> seen = scenario();
        if (watch.ms() < PATIENCE_MS) return seen;
    }
    return {"the machine has held it up every time"};
}
