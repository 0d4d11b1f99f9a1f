#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "tools/tessctl/item.h"

/// The keys and values of an item as an object. Whole numbers are numbers, everything else is text;
/// bytes that are not UTF-8 become U+FFFD when it is printed by jsonText().
nlohmann::ordered_json jsonOf(const Item& item);

/// All items of a word, in order, as an array of objects.
nlohmann::ordered_json jsonOfAll(const std::vector<Item>& items, std::string_view word);

/// All that tessd tells: `daemon` and `count` are objects, `ports`, `connections` and `processes`
/// arrays of objects.
/// @throws CtlError  it lacks what every tessd tells
nlohmann::ordered_json statusJson(const std::vector<Item>& items);

/// @param indent  blanks for each step; -1: all in one line
std::string jsonText(const nlohmann::ordered_json& json, int indent);
