#include "tools/tess-mqtt/xcp_frame.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace {

struct Header {
    std::uint32_t kind = 0;
    std::uint32_t sender = 0;
    std::uint32_t tag = 0;
    std::uint32_t length = 0;
};

} // namespace

std::string frameBytes(std::uint16_t tag, std::string_view line)
{
    const Header header{.tag = tag, .length = static_cast<std::uint32_t>(line.size())};
    std::string bytes(reinterpret_cast<const char*>(&header), sizeof header);
    return bytes.append(line);
}

std::optional<XcpFrame> takeFrame(std::string& bytes)
{
    Header header;
    if (bytes.size() < sizeof header) return std::nullopt;
    std::memcpy(&header, bytes.data(), sizeof header);
    if (bytes.size() - sizeof header < header.length) return std::nullopt; // no sum, which may not fit 32 bits
    std::string text = bytes.substr(sizeof header, header.length);
    bytes.erase(0, sizeof header + header.length);
    text.resize(std::min(text.find('\0'), text.size()));
    return XcpFrame{header.kind, header.sender, header.tag, std::move(text)};
}
