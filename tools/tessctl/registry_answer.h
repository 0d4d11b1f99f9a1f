#pragma once

#include <string>
#include <string_view>

/// What tessd answers to registering and unregistering. Only the beginning of an answer counts: a
/// short one carries the end of a longer one before it.

/// Whether it is an answer to unregistering, and not one to registering.
bool answersUnregistering(std::string_view answer);

/// Why tessd refuses to register a name, in words that say what to do.
std::string refusalText(std::string_view name, std::string_view answer);
