#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/tessctl/item.h"

/// What tessd tells of itself, as lines for people. Pure.
/// @param width  of the lines at most; 0: as wide as it takes

/// "2 h 3 min", "12 s": the two largest units.
std::string spanText(std::chrono::seconds span);

/// The ports of a mask: "com2,telnet,xcp,ipc".
std::string portsText(std::uint32_t mask);

std::vector<std::string> statusLines(const std::vector<Item>& items, std::size_t width);
std::vector<std::string> processLines(const std::vector<Item>& items, std::size_t width);
std::vector<std::string> connectionLines(const std::vector<Item>& items, std::size_t width);
