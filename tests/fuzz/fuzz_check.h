#pragma once

#include <string_view>

/// Ends the program when something does not hold, and says so.
/// @param what  what ought to hold
void fuzzCheck(bool holds, std::string_view what);
