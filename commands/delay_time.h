#pragma once

#include <cstdint>
#include <string_view>

/// Reads the time of a delay: numbers separated by any of ":", " " and ".". One number is
/// milliseconds; two are seconds and milliseconds; with three, minutes stand in front, with four
/// hours. Hours up to 999, minutes up to 59999, seconds up to 2999999.
/// @return milliseconds; 0 for anything else. Each number is converted in 32-bit signed arithmetic
///         (deliberate): hours above 596 and seconds above 2147483 overflow, and the result may be
///         an enormous one
std::uint64_t parseDelayTime(std::string_view text);
