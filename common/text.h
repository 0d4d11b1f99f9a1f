#pragma once

#include <string_view>
#include <strings.h>

#include "common/white_space.h"

/// Compares the front of `text` without regard to case, as commands and addresses are compared.
inline bool beginsWithNoCase(std::string_view text, std::string_view head)
{
    return text.size() >= head.size() && ::strncasecmp(text.data(), head.data(), head.size()) == 0;
}

/// Compares two texts without regard to case, as commands and addresses are compared.
inline bool equalsNoCase(std::string_view a, std::string_view b)
{
    return a.size() == b.size() && beginsWithNoCase(a, b);
}

/// `text` without the white space in front.
inline std::string_view trimmedFront(std::string_view text)
{
    while (!text.empty() && isWhiteSpace(text.front()))
        text.remove_prefix(1);
    return text;
}

/// `text` without the white space at both ends.
inline std::string_view trimmed(std::string_view text)
{
    text = trimmedFront(text);
    while (!text.empty() && isWhiteSpace(text.back()))
        text.remove_suffix(1);
    return text;
}

/// `text` without the CRs and LFs at its end.
inline std::string_view withoutLineEnds(std::string_view text)
{
    while (!text.empty() && isLineEnd(text.back()))
        text.remove_suffix(1);
    return text;
}
