#include "commands/interpreter.h"

#include <array>
#include <cstring>
#include <strings.h>

#include "commands/command_address.h"
#include "commands/forwarding.h"
#include "connections/white_space.h"
#include "framework/fixed_text.h"
#include "framework/tess_messages.h"
#include "framework/tokenizer.h"
#include "ports/milestone.h"

namespace {

constexpr std::size_t TOKEN_BYTES = 1024; // its NUL included

bool beginsWithNoCase(std::string_view text, std::string_view head)
{
    return text.size() >= head.size() && ::strncasecmp(text.data(), head.data(), head.size()) == 0;
}

std::string_view trimmed(std::string_view text)
{
    while (!text.empty() && isWhiteSpace(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && isWhiteSpace(text.back()))
        text.remove_suffix(1);
    return text;
}

void reply(TCommandContext& context, TPortConn* conn, std::string_view text)
{
    if (conn == nullptr) return;
    putText(context.outMsg.text, text);
    (void)conn->write(&context.outMsg); // the connection has logged a failure; the next pass finds out that it is gone
}

/// Puts the command into outMsg as processes receive it: text, LF, NUL.
void prepareForward(TCommandContext& context, std::string_view body, std::uint32_t connId)
{
    const std::size_t n = putText(std::span(context.outMsg.text).first(MSG_TEXT_BYTES - 1), body);
    context.outMsg.text[n] = '\n';
    context.outMsg.text[n + 1] = '\0';
    context.outLen = static_cast<std::int32_t>(MSG_HEADER_BYTES + n + 2);
    context.outMsg.tag = connId;
}

void routeToken(TCommandContext& context, TPortConn* conn, std::string_view token, std::uint32_t entryTag)
{
    token = token.substr(0, TOKEN_BYTES - 1);
    TCommandAddress address;
    setMilestone(34);
    const int offset = parseCmdAddress(token, address);
    setMilestone(35);
    if (offset == ADDRESS_REJECTED && conn != nullptr) {
        reply(context, conn, "?\r\n");
        return;
    }
    if (offset == ADDRESS_WHOLE_TEXT && address.unitAddr[0] == '*' && address.procAddr[0] != '*' && conn != nullptr) {
        reply(context, conn, "0\r\n\r\n");
        return;
    }
    prepareForward(context, offset > ADDRESS_WHOLE_TEXT ? token.substr(static_cast<std::size_t>(offset)) : token,
                   conn != nullptr ? conn->connId : 0);
    const std::uint32_t portType = conn != nullptr ? conn->portId : std::uint32_t{PORT_DELAYED};
    if (forwardCmd(context, address, portType, entryTag) != 0) reply(context, conn, "?\r\n");
}

} // namespace

int processCmd(TCommandContext& context, TPortConn* conn, const TCmdEntry* cmd)
{
    if (cmd == nullptr || cmd->text == nullptr) return 1;
    const std::string_view line(cmd->text);

    // Whatever follows the five letters: reset, Resetting and RESET|X are all for resetDevice().
    if (beginsWithNoCase(line, "RESET")) {
        if (context.resetDevice(cmd->text) == 0) return 0;
        if (conn != nullptr) {
            reply(context, conn, "Error Processing Reset Command.\r\n\r\n");
            return 1;
        }
        // A delayed RESET that fails is forwarded as text (deliberate).
    }
    if (conn != nullptr && conn->portId == PORT_TELNET && line.starts_with("quit")) return CMD_CLOSE_CONNECTION;

    stringTokenizer(line, context.tokens, "|");
    for (const std::string_view token : context.tokens) {
        const std::string_view command = trimmed(token);
        if (beginsWithNoCase(command, "DELAY")) {
            reply(context, conn, "Error Setting Command: Invalid Arguments.\r\n\r\n");
            return 0; // what follows belongs to the delayed command
        }
        routeToken(context, conn, command, cmd->tag);
    }
    return 0;
}
