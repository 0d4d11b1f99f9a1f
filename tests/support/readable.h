#pragma once

#include <cstdio>
#include <string>
#include <string_view>

/// Bytes as a test's message shows them: what cannot be printed as \xNN.
inline std::string readable(std::string_view bytes)
{
    std::string shown;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        char code[8];
        if (byte >= ' ' && byte < 127 && byte != '\\')
            shown += c;
        else if (byte == '\r')
            shown += "\\r";
        else if (byte == '\n')
            shown += "\\n";
        else {
            std::snprintf(code, sizeof code, "\\x%02x", byte);
            shown += code;
        }
    }
    return shown;
}
