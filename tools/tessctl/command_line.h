#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// The longest command line that a local port carries, without its end: the XCP frame's payload
/// with its line end. On the text socket a line of more than 1022 characters would be thrown away.
inline constexpr std::size_t MAX_LINE_BYTES = 1006;

/// Why a line cannot be sent as one: it is too long, or tessd would cut it where a CR or a NUL is.
/// CRs at its end do not matter.
/// @return empty when it can
std::string lineProblem(std::string_view line);

/// The commands that tessd finds in a line: what stands between the "|", but a DELAY takes the rest
/// of the line along, and a line that begins with RESET is one command. One of nothing but blanks
/// is a command too: an empty one.
/// @return views into `line`; none when there is nothing but blanks in all of it
std::vector<std::string_view> commandsOf(std::string_view line);

/// Why the commands of a line cannot be sent one by one: as a line of its own, one that begins with
/// RESET behind a "|" would restart the device, which as a part of the line it does not.
/// @return empty when they can
std::string splitProblem(std::string_view line);

/// How many answers a line asks for: one for each command. Commands without an address may be
/// answered by several processes; they count as one.
std::size_t answersDue(std::string_view line);
