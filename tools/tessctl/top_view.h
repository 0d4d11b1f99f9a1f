#pragma once

#include <chrono>
#include <cstddef>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "tools/tessctl/item.h"

/// What tessd has told at a moment.
struct Sample {
    std::chrono::steady_clock::time_point when;
    std::vector<Item> items;
};

/// How often something was counted between two samples, for each second.
double rate(const Sample& before, const Sample& now, const char* key);

/// A screen of `tessctl top`: the daemon, rates, processes, clients.
/// @param width  of the lines at most; 0: as wide as it takes
/// @param rows   lines at most; 0: as many as it takes
std::vector<std::string> topLines(const Sample& before, const Sample& now, std::size_t width, std::size_t rows);

/// The same as an object: that of `tessctl status --json`, and `rates`.
nlohmann::ordered_json topJson(const Sample& before, const Sample& now);
