#pragma once

#include <string>
#include <string_view>
#include <vector>

/// The answer that a program's output makes: its lines with CR LF, then an empty line. An empty line inside gets a blank, so
/// that it does not end the answer, and so does a "?" in front of other lines; empty lines at the end are left out, and so are
/// NULs. "?" alone is a refusal: it has no empty line behind it, and no failure. Nothing at all becomes "OK".
/// @param failure  what went wrong; becomes the last line, behind "Error: "; empty when nothing did
std::string replyText(std::string_view output, std::string_view failure);

/// Cuts a reply into what one message each can carry, behind line ends where there are any.
/// @return views into `reply`
std::vector<std::string_view> replyMessages(std::string_view reply);
