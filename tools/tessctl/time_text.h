#pragma once

#include <chrono>
#include <string>

/// A time as the log has it: UTC, with milliseconds ("2026-11-21T08:30:00.250Z").
std::string timeText(std::chrono::system_clock::time_point time);
