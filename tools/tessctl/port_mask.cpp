#include "tools/tessctl/port_mask.h"

#include <vector>

#include "framework/tess_messages.h"
#include "framework/tokenizer.h"

std::optional<std::uint32_t> portMask(std::string_view names)
{
    std::vector<std::string_view> words;
    stringTokenizer(names, words, ",");
    std::uint32_t mask = 0;
    for (const std::string_view word : words) {
        if (word == "com2")
            mask |= PORT_COM2;
        else if (word == "telnet")
            mask |= PORT_TELNET;
        else if (word == "xcp")
            mask |= PORT_XCP;
        else if (word == "ipc")
            mask |= PORT_IPC;
        else
            return std::nullopt;
    }
    return mask == 0 ? std::nullopt : std::optional(mask);
}
