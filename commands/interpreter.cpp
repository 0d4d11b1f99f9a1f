#include "commands/interpreter.h"

#include <new>
#include <span>

#include "commands/command_address.h"
#include "commands/delay_command.h"
#include "commands/forwarding.h"
#include "commands/reply.h"
#include "common/milestone.h"
#include "common/text.h"
#include "connections/witness.h"
#include "framework/fixed_text.h"
#include "framework/tess_messages.h"
#include "framework/tokenizer.h"

namespace {

constexpr std::size_t TOKEN_BYTES = 1024; // its NUL included
constexpr std::string_view delayWord = "DELAY";

/// Puts the command into outMsg as processes receive it: text, LF, NUL.
void prepareForward(CommandContext& context, std::string_view body, std::uint32_t connId)
{
    const std::size_t n = putText(std::span(context.outMsg.text).first(MSG_TEXT_BYTES - 1), body);
    context.outMsg.text[n] = '\n';
    context.outMsg.text[n + 1] = '\0';
    context.outLen = static_cast<std::int32_t>(MSG_HEADER_BYTES + n + 2);
    context.outMsg.tag = connId;
}

/// A line that is being interpreted.
class LineRun {
public:
    LineRun(CommandContext& context, TPortConn* conn, const CmdEntry& cmd)
        : context_(context), conn_(conn), cmd_(cmd),
          progress_(conn != nullptr ? conn->progress : context.delayedLine.progress)
    {
    }

    int run()
    try {
        if (!progress_.waits()) witness::line(conn_, cmd_.text);
        const int result = interpret();
        if (result != CMD_WAITS) forgetProgress();
        return result;
    } catch (const std::bad_alloc&) {
        forgetWait();
        forgetProgress();
        witness::refused(conn_, cmd_.text);
        replyTo(context_, conn_, "?\r\n");
        return 1;
    }

private:
    using Wait = CmdProgress::Wait;

    void forgetProgress()
    {
        progress_.token = 0;
        progress_.pastReset = false;
    }

    void forgetWait()
    {
        progress_.wait = Wait::nothing;
        const std::scoped_lock lock(context_.regLock);
        context_.fullQueues.leave(progress_.queueWaiter);
    }

    int interpret()
    {
        const std::string_view line(cmd_.text);
        // Whatever follows the five letters: reset, Resetting and RESET|X are all for
        // resetDevice().
        if (!progress_.pastReset && beginsWithNoCase(line, "RESET")) {
            const ResetResult result = context_.resetDevice(cmd_.text, &progress_);
            progress_.wait = result == RESET_WAITS ? Wait::reInit : Wait::nothing;
            if (result == RESET_WAITS) return CMD_WAITS;
            if (result == RESET_STARTED) return 0;
            if (conn_ != nullptr) {
                witness::refused(conn_, line);
                replyTo(context_, conn_, "Error Processing Reset Command.\r\n\r\n");
                return 1;
            }
            // A delayed RESET that fails is forwarded as text (deliberate).
        }
        progress_.pastReset = true;
        if (conn_ != nullptr && conn_->portId == PORT_TELNET && line.starts_with("quit")) return CMD_CLOSE_CONNECTION;
        stringTokenizer(line, context_.tokens, "|");
        return takeTokens();
    }

    int takeTokens()
    {
        for (; progress_.token < context_.tokens.size(); ++progress_.token) {
            const std::string_view command = trimmed(context_.tokens[progress_.token]);
            if (beginsWithNoCase(command, delayWord)) return takeDelay(command);
            if (!routeToken(command)) return CMD_WAITS;
        }
        return 0;
    }

    int takeDelay(std::string_view command)
    {
        if (command.size() == delayWord.size()) return listDelays(context_, conn_);
        const bool done = setDelay(context_, std::span(context_.tokens).subspan(progress_.token)) == 0;
        if (!done) witness::refused(conn_, command);
        replyTo(context_, conn_, done ? "OK\r\n\r\n" : "Error Setting Command: Invalid Arguments.\r\n\r\n");
        return 0; // the tokens behind it belong to the delayed line
    }

    /// @return false: it has to wait
    bool routeToken(std::string_view token)
    {
        token = token.substr(0, TOKEN_BYTES - 1);
        CommandAddress address;
        setMilestone(Milestone::addressBegun);
        const int offset = parseCmdAddress(token, address);
        setMilestone(Milestone::addressDone);
        if (offset == ADDRESS_REJECTED && conn_ != nullptr) {
            witness::refused(conn_, token);
            replyTo(context_, conn_, "?\r\n");
            return true;
        }
        if (offset == ADDRESS_WHOLE_TEXT && address.unitAddr[0] == '*' && address.procAddr[0] != '*' &&
            conn_ != nullptr) {
            replyTo(context_, conn_, "0\r\n\r\n");
            return true;
        }
        const bool hasAddress = offset > ADDRESS_WHOLE_TEXT;
        return forward(token, address, hasAddress ? token.substr(static_cast<std::size_t>(offset)) : token);
    }

    /// @return false: it has to wait
    bool forward(std::string_view token, const CommandAddress& address, std::string_view body)
    {
        prepareForward(context_, body, conn_ != nullptr ? conn_->connId : 0);
        const std::uint32_t portType = conn_ != nullptr ? conn_->portId : std::uint32_t{PORT_DELAYED};
        int result = 0;
        if (progress_.wait == Wait::room) {
            context_.outMsg.tag |= cmd_.tag; // as forwardCmd() does when a process matches; one did
            result = goOnForwarding(context_, progress_);
        } else {
            result = forwardCmd(context_, progress_, address, portType, cmd_.tag);
        }
        progress_.wait = result == FORWARD_WAITS ? Wait::room : Wait::nothing;
        if (result == FORWARD_WAITS) return false;
        if (result == 0) return true;
        witness::refused(conn_, token);
        replyTo(context_, conn_, "?\r\n");
        return true;
    }

    CommandContext& context_;
    TPortConn* conn_;
    const CmdEntry& cmd_;
    CmdProgress& progress_;
};

} // namespace

int processCmd(CommandContext& context, TPortConn* conn, const CmdEntry* cmd)
{
    if (cmd == nullptr || cmd->text == nullptr) return 1;
    return LineRun(context, conn, *cmd).run();
}
