#pragma once

#include <optional>
#include <string>
#include <string_view>

/// Turns the bytes that keys send into characters of the present locale. For a byte that belongs to
/// no character it gives a stand-in that no key sends, U+10FF00 plus the byte's value; typedBytes()
/// turns that into the byte again.
/// Threads: one.
class KeyDecoder {
public:
    void add(char byte) { bytes_ += byte; }

    /// @return the next character; nothing when the rest of one is still to come
    std::optional<wchar_t> next();

private:
    std::string bytes_;
};

/// The bytes as they were typed.
/// @param text  the characters of KeyDecoder, in UTF-8
std::string typedBytes(std::string_view text);
