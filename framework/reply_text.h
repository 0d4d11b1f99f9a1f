#pragma once

#include <string>
#include <string_view>
#include <vector>

/// The answer that a text makes: its lines with CR LF, then an empty line. An empty line inside
/// gets a blank, so that it does not end the answer, and so does a "?" in front of other lines;
/// empty lines at the end are left out, and so are NULs. "?" alone is a refusal: it has no empty
/// line behind it, and no failure. Nothing at all becomes "OK".
/// @param output   any bytes
/// @param failure  what went wrong; becomes the last line, behind "Error: "; empty when nothing did
/// Threads: any.
std::string replyText(std::string_view output, std::string_view failure);

/// Cuts a reply into what one record each can carry (MSG_TEXT_BYTES with a NUL), behind line ends
/// where there are any.
/// @return views into `reply`, in order; none when it is empty
/// Threads: any.
std::vector<std::string_view> replyMessages(std::string_view reply);
