#pragma once

#include <optional>
#include <string>
#include <string_view>

/// Makes characters of the bytes that keys send, as the present locale has them. A byte that belongs to no character becomes
/// one that stands for it, U+10FF00 and above, which nobody types; typedBytes() makes that byte of it again.
/// Threads: one.
class TKeyDecoder {
public:
    void add(char byte) { bytes_ += byte; }

    /// @return the next character; nothing when the rest of one is still to come
    std::optional<wchar_t> next();

private:
    std::string bytes_;
};

/// What was typed, byte by byte.
/// @param text  in UTF-8
std::string typedBytes(std::string_view text);
