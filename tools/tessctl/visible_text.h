#pragma once

#include <string>
#include <string_view>

/// A text as a terminal may be given it: what would control the terminal is written as "\x1b". Tabs, line ends and UTF-8
/// stay as they are.
std::string visibleText(std::string_view text);
