#pragma once

#include <array>
#include <string_view>

/// What becomes of a request to register a process.
enum class RegisterResult { done = 0, nothingEnabled = 1, listFull = 2, noMemory = 3 };

/// What becomes of a request to unregister the sender's process.
enum class UnregisterResult { done = 0, listEmpty = 1, notFound = 2 };

/// What the sender is told, indexed by the result. The last text of each belongs to no result, and
/// is never sent.
inline constexpr std::array<std::string_view, 5> registerTexts{
    "Process register operation successful", "Command register request with nothing enabled",
    "Max # of registered processes reached", "Couldn't allocate memory for process register request",
    "Process register operation failed"};
inline constexpr std::array<std::string_view, 4> unregisterTexts{
    "Process unregister operation successful", "Registered process list is empty",
    "Process not found in registered process list", "Process unregister operation failed"};
