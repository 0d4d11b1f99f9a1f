#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

/// @param names  of ports, joined by commas: com2, telnet, xcp, ipc
/// @return their bits (TessPortType); nothing when a name is unknown or there is none
std::optional<std::uint32_t> portMask(std::string_view names);
