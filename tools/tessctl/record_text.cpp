#include "tools/tessctl/record_text.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

#include "framework/tess_messages.h"

namespace {

const char* nameOf(std::uint32_t kind)
{
    switch (kind) {
    case MSG_STOP:
        return "stop";
    case MSG_TEXT:
        return "text";
    case MSG_REPLY:
        return "reply";
    case MSG_REGISTER:
        return "register";
    case MSG_UNREGISTER:
        return "unregister";
    case MSG_CLOSE_ALL:
        return "close all";
    case MSG_COM2_WRITE:
        return "COM2 write";
    case MSG_CLOSE_TELNET:
        return "close telnet";
    case MSG_RESET:
        return "reset";
    default:
        return "unknown";
    }
}

template <class... Values> std::string formatted(const char* format, Values... values)
{
    std::array<char, 128> text{};
    (void)std::snprintf(text.data(), text.size(), format, values...); // what is formatted here is shorter
    return text.data();
}

} // namespace

std::string_view textOf(const TOrbAttachmentMsg& record)
{
    return {record.text, ::strnlen(record.text, sizeof record.text)};
}

std::string inQuotes(std::string_view text)
{
    std::string result = "\"";
    for (const char c : text) {
        switch (c) {
        case '\n':
            result += "\\n";
            break;
        case '\r':
            result += "\\r";
            break;
        case '\t':
            result += "\\t";
            break;
        case '"':
        case '\\':
            result += '\\';
            result += c;
            break;
        default:
            if (c >= ' ' && c <= '~')
                result += c;
            else
                result += formatted("\\%03o", static_cast<unsigned>(static_cast<unsigned char>(c)));
        }
    }
    return result + '"';
}

std::string describe(const TOrbAttachmentMsg& record, std::size_t bytes)
{
    const std::string_view text(record.text, std::min(bytes - MSG_HEADER_BYTES, sizeof record.text));
    return formatted("kind %u (%s), sender %d, tag 0x%08x, len %d, text ", record.kind, nameOf(record.kind),
                     record.sender, record.tag, record.len) +
           inQuotes(text.substr(0, text.find('\0')));
}

std::string hexDump(const TOrbAttachmentMsg& record, std::size_t bytes)
{
    const std::string_view all(reinterpret_cast<const char*>(&record), std::min(bytes, sizeof record));
    std::string result;
    for (std::size_t row = 0; row < all.size(); row += 16) {
        result += formatted("%04zx ", row);
        for (const char c : all.substr(row, 16))
            result += formatted(" %02x", static_cast<unsigned>(static_cast<unsigned char>(c)));
        result += '\n';
    }
    return result;
}
