#pragma once

#include <string>
#include <vector>

#include "tools/tessctl/item.h"

/// What tessd tells of itself as OpenMetrics text, `# EOF` at its end. Pure.
/// @throws CtlError  it lacks what every tessd tells
std::string metricsText(const std::vector<Item>& items);
