#pragma once

#include <cstddef>
#include <string_view>

/// The longest command line that a local port carries, without its end: the XCP frame's payload with its line end. On the
/// text socket a line of more than 1022 characters would be thrown away.
inline constexpr std::size_t MAX_LINE_BYTES = 1006;

/// How many answers a command line asks for: one for each command between the "|", but a DELAY takes the rest of the line
/// along. Commands without an address may be answered by several processes; they count as one.
/// @return 0 when there is no command in the line
std::size_t answersDue(std::string_view line);
