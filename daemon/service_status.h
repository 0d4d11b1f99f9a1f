#pragma once

#include <cstdint>

#include "framework/fixed_text.h"

/// What the service manager shows of the daemon: its version and its ports, as tessctl names them.
/// @param openPorts  the ports that are open, as bits (TessPortType)
FixedText<128> serviceStatusText(std::uint32_t openPorts);
