// The main thread's loop: serves the daemon's queue.
#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <utility>

#include "common/live_list.h"
#include "common/message_wake.h"
#include "common/milestone.h"
#include "common/wake_up.h"
#include "common/watch_feed.h"
#include "daemon/answer_runs.h"
#include "daemon/daemon_log.h"
#include "daemon/tess.h"
#include "framework/fd.h"
#include "framework/sleep.h"
#include "framework/tess_messages.h"

namespace {

constexpr int FAILURE_PAUSE_MS = 100; // for a queue that fails, which may well go on

} // namespace

/// A kind of message and its handler. A handler returns true when the message is to be answered
/// now, with the first inLen bytes of replyMsg.
struct TTess::KindRow {
    std::uint32_t kind;
    bool (TTess::*handle)() noexcept;
};

const TTess::KindRow TTess::kindRows[] = {
    // clang-format off
    {MSG_REPLY, &TTess::handleReply},
    {MSG_REGISTER, &TTess::handleRegister},
    {MSG_UNREGISTER, &TTess::handleUnregister},
    {MSG_CLOSE_ALL, &TTess::handleCloseAll},
    {MSG_COM2_WRITE, &TTess::handleCom2Write},
    {MSG_CLOSE_TELNET, &TTess::handleCloseTelnet},
    {MSG_RESET, &TTess::handleReset},
    {MSG_STATUS, &TTess::handleStatus},
    {MSG_WATCH, &TTess::handleWatch},
    // clang-format on
};

int TTess::run() noexcept
{
    while (stopRequested == 0) {
        setMilestone(Milestone::receivingMessage);
        if (!queue.hasNext()) { // those that have come together are written together
            passAnswersOn();
            g_watch.flush();
        }
        inLen = static_cast<std::int32_t>(queue.next(true));
        answerWhatIsOver();
        if (inLen < 0) Sleep(FAILURE_PAUSE_MS);
        if (inLen <= 0) continue;
        setMilestone(Milestone::messageReceived);
        if (inMsg.kind != MSG_REPLY) finishAnswers();
        if (inMsg.kind == MSG_STOP) break;
        const auto* const row =
            std::ranges::find(kindRows, inMsg.kind, [](const KindRow& candidate) { return candidate.kind; });
        if (row == std::end(kindRows))
            countUnknown();
        else if ((this->*row->handle)())
            sendReply(inMsg.sender, inLen);
    }
    finishAnswers();
    g_watch.flush();
    setMilestone(Milestone::messageLoopDone);
    return 0;
}

void TTess::sendReply(long address, std::int32_t length) noexcept
{
    setMilestone(Milestone::sendingReply);
    const std::scoped_lock lock(regLock);
    if (waitingAnswers.send(address, replyMsg, length)) g_wakeUp.wake();
}

/// Answers those messages that have waited and are over.
void TTess::answerWhatIsOver() noexcept
{
    if (!takeMessageWake()) return;
    std::vector<LineOutput::Report> reports;
    {
        const std::scoped_lock lock(connLock);
        AnswerRuns(answers.take(), conns).write();
        reports.swap(lineReports);
    }
    for (const LineOutput::Report& report : reports) {
        replyMsg.kind = MSG_REPLY;
        replyMsg.tag = report.ticket.tag;
        replyMsg.len = report.written ? 0 : 1;
        sendReply(report.ticket.asker, MSG_HEADER_BYTES);
    }
    if (!resetMsg.waits || stopRequested != 0 || !reInit.isOver(this)) return;
    resetMsg.waits = false;
    replyReset(reset.ask("", this));
    sendReply(resetMsg.sender, resetMsg.length);
}

/// Writes the answers that have come; unless the service thread has locked the connections, which
/// then does so when it unlocks them. Nobody waits.
void TTess::passAnswersOn() noexcept
{
    if (answers.isEmpty()) return;
    std::unique_lock lock(connLock, std::try_to_lock);
    if (!lock.owns_lock()) return;
    AnswerRuns runs(answers.take(), conns);
    if (runs.areLocal()) lock.unlock(); // the next command may be there before the answer's sending is over
    runs.write();
}

/// Has all answers written that have come so far, in front of whatever is done next.
void TTess::finishAnswers() noexcept
{
    const std::scoped_lock lock(connLock);
    AnswerRuns(answers.take(), conns).write();
}

/// Has a process's answer written to the connection that asked.
bool TTess::handleReply() noexcept
{
    countAnswer();
    const std::size_t most =
        std::min<std::size_t>(static_cast<std::size_t>(inLen) - MSG_HEADER_BYTES, MSG_TEXT_BYTES - 1);
    const std::size_t textBytes = ::strnlen(inMsg.text, most);
    if (!answers.put(inMsg, textBytes)) {
        finishAnswers();
        (void)answers.put(inMsg, textBytes); // there is room now
    }
    return false;
}

bool TTess::handleCloseAll() noexcept
{
    closeAllConns();
    g_wakeUp.wake(); // the serial line's next session begins at once
    return false;
}

bool TTess::handleCloseTelnet() noexcept
{
    closeTelnetConns();
    return false;
}

bool TTess::handleRegister() noexcept
{
    const RegisterResult result = registerProc();
    if (result == RegisterResult::done) tellRegistered();
    replyRegistry(static_cast<std::size_t>(result), registerTexts);
    return true;
}

bool TTess::handleUnregister() noexcept
{
    replyRegistry(static_cast<std::size_t>(unregisterProc()), unregisterTexts);
    return true;
}

/// Copies the text without its NUL over the last one: a shorter text carries the tail of a longer
/// one (deliberate).
void TTess::replyRegistry(std::size_t result, std::span<const std::string_view> texts) noexcept
{
    const std::string_view text = texts[std::min(result, texts.size() - 1)];
    replyMsg.kind = MSG_REPLY;
    replyMsg.tag = result == 0 ? 0 : static_cast<std::uint32_t>(-1);
    replyMsg.len = 0;
    std::memcpy(replyMsg.text, text.data(), text.size());
    inLen = static_cast<std::int32_t>(MSG_HEADER_BYTES + ::strnlen(replyMsg.text, MSG_TEXT_BYTES - 1) + 1);
}

/// Writes raw bytes out of the serial line, if it has a connection. Without one the answer keeps
/// the length received and the kind of the answer before it (deliberate). When the line does not
/// take all of them at once, the answer follows once it has taken the rest, or that has failed.
bool TTess::handleCom2Write() noexcept
{
    const std::size_t count = static_cast<std::size_t>(std::clamp<std::int32_t>(inMsg.len, 0, MSG_TEXT_BYTES));
    bool answers = true;
    replyMsg.len = 1;
    replyMsg.tag = inMsg.tag;
    const std::scoped_lock lock(connLock);
    for (std::size_t i = 0; TPortConn* conn = liveAt(conns, i); ++i) {
        if (conn->isSerialLine() == 0) continue;
        (void)conn->startMute(); // always 0
        // Non-blocking: else the opening would wait for a line without carrier, and the writing for
        // a slow one.
        Fd line(::open(COM2_DEVICE, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
        const LineOutput::Sent sent =
            conn->output->writeReported(std::move(line), {inMsg.text, count}, {inMsg.sender, inMsg.tag});
        replyMsg.len = sent == LineOutput::Sent::whole ? 0 : 1;
        replyMsg.kind = MSG_REPLY;
        inLen = MSG_HEADER_BYTES;
        answers = sent != LineOutput::Sent::kept;
    }
    // The service loop must learn of the end of the mute, and of the text that waits for room.
    g_wakeUp.wake();
    return answers;
}

/// The answer has the length of the request, and the tag and len of the answer before it
/// (deliberate).
bool TTess::handleReset() noexcept
{
    logMessage(daemon_log::resetReceived);
    inMsg.text[MSG_TEXT_BYTES - 1] = '\0';
    // Only one reset message can wait for a program, as asker `this`. Another one that comes
    // meanwhile uses a different pointer, so that it is not taken for the one that waits.
    const void* const asker = resetMsg.waits ? static_cast<const void*>(&inMsg) : this;
    const ResetResult result = reset.ask(inMsg.text, asker);
    tellReset(result);
    if (result == RESET_WAITS) {
        resetMsg = {true, inMsg.sender, inLen};
        return false;
    }
    replyReset(result);
    return true;
}

void TTess::replyReset(ResetResult result) noexcept
{
    replyMsg.kind = MSG_REPLY;
    const std::string_view text = result == RESET_STARTED ? "OK\r\n\r\n" : "Error Processing RESET Command\r\n\r\n";
    std::memcpy(replyMsg.text, text.data(), text.size() + 1);
}
