#include "commands/interpreter.h"

#include <span>

#include "commands/command_address.h"
#include "commands/command_text.h"
#include "commands/delay_queue.h"
#include "commands/forwarding.h"
#include "framework/fixed_text.h"
#include "framework/tess_messages.h"
#include "framework/tokenizer.h"
#include "ports/milestone.h"

namespace {

constexpr std::size_t TOKEN_BYTES = 1024; // its NUL included
constexpr std::string_view delayWord = "DELAY";

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
        replyTo(context, conn, "?\r\n");
        return;
    }
    if (offset == ADDRESS_WHOLE_TEXT && address.unitAddr[0] == '*' && address.procAddr[0] != '*' && conn != nullptr) {
        replyTo(context, conn, "0\r\n\r\n");
        return;
    }
    prepareForward(context, offset > ADDRESS_WHOLE_TEXT ? token.substr(static_cast<std::size_t>(offset)) : token,
                   conn != nullptr ? conn->connId : 0);
    const std::uint32_t portType = conn != nullptr ? conn->portId : std::uint32_t{PORT_DELAYED};
    if (forwardCmd(context, address, portType, entryTag) != 0) replyTo(context, conn, "?\r\n");
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
            replyTo(context, conn, "Error Processing Reset Command.\r\n\r\n");
            return 1;
        }
        // A delayed RESET that fails is forwarded as text (deliberate).
    }
    if (conn != nullptr && conn->portId == PORT_TELNET && line.starts_with("quit")) return CMD_CLOSE_CONNECTION;

    stringTokenizer(line, context.tokens, "|");
    for (std::size_t i = 0; i < context.tokens.size(); ++i) {
        const std::string_view command = trimmed(context.tokens[i]);
        if (beginsWithNoCase(command, delayWord)) {
            if (command.size() == delayWord.size()) return listDelays(context, conn);
            const bool done = setDelay(context, std::span(context.tokens).subspan(i)) == 0;
            replyTo(context, conn, done ? "OK\r\n\r\n" : "Error Setting Command: Invalid Arguments.\r\n\r\n");
            return 0; // the tokens behind it belong to the delayed line
        }
        routeToken(context, conn, command, cmd->tag);
    }
    return 0;
}
