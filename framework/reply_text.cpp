#include "framework/reply_text.h"

#include <algorithm>

#include "framework/orb_attachment_msg.h"

std::string replyText(std::string_view output, std::string_view failure)
{
    std::string clean(output);
    std::erase(clean, '\0');
    clean.resize(clean.find_last_not_of("\r\n") + 1);
    if (clean == "?") return "?\r\n";

    std::string reply;
    if (!clean.empty()) {
        std::string_view rest = clean;
        for (bool more = true; more;) {
            const std::size_t end = rest.find('\n');
            more = end != std::string_view::npos;
            std::string_view line = rest.substr(0, end);
            if (line.ends_with('\r')) line.remove_suffix(1);
            reply += line.empty() ? " " : line;
            if (reply == "?") reply += ' ';
            reply += "\r\n";
            if (more) rest.remove_prefix(end + 1);
        }
    }
    if (!failure.empty()) reply.append("Error: ").append(failure).append("\r\n");
    if (reply.empty()) reply = "OK\r\n";
    return reply + "\r\n";
}

std::vector<std::string_view> replyMessages(std::string_view reply)
{
    constexpr std::size_t MOST = MSG_TEXT_BYTES - 1; // and a NUL
    std::vector<std::string_view> messages;
    while (!reply.empty()) {
        std::size_t count = std::min(reply.size(), MOST);
        if (count < reply.size()) {
            const std::size_t lineEnd = reply.substr(0, count).rfind('\n');
            if (lineEnd != std::string_view::npos) count = lineEnd + 1;
        }
        messages.push_back(reply.substr(0, count));
        reply.remove_prefix(count);
    }
    return messages;
}
