#pragma once

#include <string>
#include <string_view>
#include <vector>

/// The lines that a read yields, found one by one and without regard to speed: what the cutting in
/// place is compared with. A line ends where a NUL stands in it, as its reader sees it.
std::vector<std::string> linesByRules(std::string_view received, bool nulIsSpace);

/// The same for the payload of an XCP frame, where lines run on.
std::vector<std::string> frameLinesByRules(std::string_view payload);
