#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// A frame of /tmp/xcp: four words in host byte order, then a text.
struct XcpFrame {
    std::uint32_t kind = 0;   ///< from tessd: MSG_REPLY for the answer of a process, else it is tessd's own
    std::uint32_t sender = 0; ///< from tessd: whose answer it is
    std::uint32_t tag = 0;
    std::string text; ///< up to its NUL
};

/// A line on its way to tessd.
/// @param line  without an end, which would stay in a delayed line
std::string frameBytes(std::uint16_t tag, std::string_view line);

/// Takes a whole frame from the front of what has arrived.
/// @param bytes  what has been taken is erased
/// @return nothing: no whole one is there
std::optional<XcpFrame> takeFrame(std::string& bytes);
