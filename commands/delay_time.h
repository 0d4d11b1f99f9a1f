#pragma once

#include <cstdint>
#include <string_view>

/// Reads the time of a delay: numbers separated by any of ":", " " and ".". One number is
/// milliseconds; two are seconds and milliseconds; with three, minutes stand in front, with four
/// hours. Hours up to 999, minutes up to 59999, seconds up to 2999999.
/// @return milliseconds; 0 when the text is no such time. Each number is converted in 32-bit signed
///         arithmetic (deliberate): hours above 596, minutes above 35791 and seconds above 2147483
///         overflow, and the result may then be enormous
std::uint64_t parseDelayTime(std::string_view text);
