#pragma once

#include <string>
#include <string_view>
#include <vector>

/// The word that was probably meant.
/// @param choices  the words that there are
/// @return one of them; empty when none is like it
std::string nearestWord(std::string_view typed, const std::vector<std::string>& choices);
