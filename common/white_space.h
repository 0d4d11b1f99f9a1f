#pragma once

/// What isspace(3) calls white space in the C locale, safe for any char.
constexpr bool isWhiteSpace(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

constexpr bool isLineEnd(char c)
{
    return c == '\r' || c == '\n';
}
