#include "connections/line_cutter.h"

#include <cstddef>

#include "common/white_space.h"

int cutLines(std::span<char> received, bool nulIsSpace, std::span<CmdEntry> lines)
{
    const auto isBlank = [nulIsSpace](char c) { return isWhiteSpace(c) || (nulIsSpace && c == '\0'); };
    std::size_t count = 0;
    std::size_t i = 0;
    while (true) {
        for (; i < received.size() && isBlank(received[i]); ++i)
            received[i] = '\0';
        if (i >= received.size()) return static_cast<int>(count);
        lines[count++] = {0, &received[i]};
        while (i < received.size() && !isLineEnd(received[i]))
            ++i;
    }
}

int cutFrameLines(std::span<char> payload, std::uint32_t tag, std::span<CmdEntry> lines)
{
    std::size_t count = 0;
    for (std::size_t i = 0; i < payload.size(); ++i) { // ++i steps over the line end, which stays (deliberate)
        for (; i < payload.size() && isWhiteSpace(payload[i]); ++i)
            payload[i] = '\0';
        if (i >= payload.size()) break;
        lines[count++] = {tag, &payload[i]};
        while (i < payload.size() && !isLineEnd(payload[i]))
            ++i;
    }
    return static_cast<int>(count);
}
