#pragma once

#include <string>
#include <string_view>

/// A text that is safe to print at a terminal: characters that would control it are written out
/// ("\x1b" for an escape). Tabs, line ends and other UTF-8 stay as they are.
std::string visibleText(std::string_view text);
