#pragma once

#include <string_view>
#include <strings.h>

/// @return whether a text begins with another one, without regard to case, as tessd reads its commands and addresses
inline bool beginsWith(std::string_view text, std::string_view beginning)
{
    return text.size() >= beginning.size() && ::strncasecmp(text.data(), beginning.data(), beginning.size()) == 0;
}
