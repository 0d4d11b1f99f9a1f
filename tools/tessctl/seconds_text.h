#pragma once

#include <array>
#include <chrono>
#include <cstdio>
#include <string>

/// A time in seconds, with as many decimals as it needs ("0.5 s").
inline std::string secondsText(std::chrono::milliseconds time)
{
    std::array<char, 32> text{};
    (void)std::snprintf(text.data(), text.size(), "%g s", std::chrono::duration<double>(time).count()); // it fits
    return text.data();
}
