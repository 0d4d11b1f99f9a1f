#include "tools/tessctl/time_text.h"

#include <array>
#include <cstdio>
#include <ctime>

std::string timeText(std::chrono::system_clock::time_point time)
{
    const auto second = std::chrono::floor<std::chrono::seconds>(time);
    const std::time_t seconds = std::chrono::system_clock::to_time_t(second);
    const auto ms = std::chrono::floor<std::chrono::milliseconds>(time - second).count();
    std::tm utc{};
    (void)::gmtime_r(&seconds, &utc); // years fit
    std::array<char, 32> day{};
    std::array<char, 48> text{};
    (void)std::strftime(day.data(), day.size(), "%Y-%m-%dT%H:%M:%S", &utc); // both fit
    (void)std::snprintf(text.data(), text.size(), "%s.%03dZ", day.data(), static_cast<int>(ms));
    return text.data();
}
