#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// The longest command line that a local port carries, without its end: the XCP frame's payload with its line end. On the
/// text socket a line of more than 1022 characters would be thrown away.
inline constexpr std::size_t MAX_LINE_BYTES = 1006;

/// Why a line cannot be sent as one: it is too long, or tessd would cut it where a CR or a NUL is. CRs at its end do not matter.
/// @return empty when it can
std::string lineProblem(std::string_view line);

/// How many answers a command line asks for: one for each command between the "|", but a DELAY takes the rest of the line
/// along. Commands without an address may be answered by several processes; they count as one.
/// @return 0 when there is no command in the line
std::size_t answersDue(std::string_view line);
