// The main thread's loop: serves the daemon's queue.
#include "daemon/tess.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <unistd.h>

#include "commands/live_list.h"
#include "connections/serial_line.h"
#include "connections/waiting.h"
#include "daemon/daemon_log.h"
#include "daemon/reset.h"
#include "framework/queue_mgr.h"
#include "framework/tess_messages.h"
#include "ports/milestone.h"
#include "ports/port_com2.h"

namespace {

constexpr std::chrono::seconds LOCK_PATIENCE{1};      // most passes take less
constexpr std::chrono::seconds LAST_LOCK_PATIENCE{5}; // twice: waits that have a bound, and their end
constexpr std::size_t MAX_LATER_MSGS = 256;           // chosen: 2 MiB; what comes after them waits in the queue

} // namespace

/// What is done with a kind of message, and whether its sender gets replyMsg.
struct TTess::KindRow {
    std::uint32_t kind;
    bool answers;
    void (TTess::*handle)() noexcept;
};

const TTess::KindRow TTess::kindRows[] = {
    {MSG_REPLY, false, &TTess::handleReply},          {MSG_REGISTER, true, &TTess::handleRegister},
    {MSG_UNREGISTER, true, &TTess::handleUnregister}, {MSG_CLOSE_ALL, false, &TTess::closeAllConns},
    {MSG_COM2_WRITE, true, &TTess::handleCom2Write},  {MSG_CLOSE_TELNET, false, &TTess::closeTelnetConns},
    {MSG_RESET, true, &TTess::handleReset},
};

int TTess::run() noexcept
{
    while (stopRequested == 0 && !serviceHeldUp) {
        setMilestone(12);
        if (!nextMessage()) continue;
        setMilestone(13);
        if (inMsg.kind == MSG_STOP) break;
        const auto* const row =
            std::ranges::find(kindRows, inMsg.kind, [](const KindRow& candidate) { return candidate.kind; });
        if (row == std::end(kindRows)) continue;
        (this->*row->handle)();
        if (!row->answers) continue;
        setMilestone(14);
        (void)g_qMgr.sendMsg(inMsg.sender, &replyMsg, inLen, false); // a sender that is gone wants no answer
    }
    setMilestone(16);
    return 0;
}

/// Puts the next message, if there is one within a second, into inMsg and inLen.
bool TTess::nextMessage() noexcept
{
    if (laterMsgs.empty()) {
        inLen = static_cast<std::int32_t>(g_qMgr.getMsg(&inMsg, MSG_QUEUE_ALL, true));
        return inLen > 0;
    }
    inMsg = laterMsgs.front().msg;
    inLen = laterMsgs.front().length;
    laterMsgs.pop_front();
    return true;
}

/// Locks connLock. While the service thread keeps it for long, as it does when a client owes it the rest of a frame header, a
/// stop message behind the one being handled is seen, and ends the waits that have no bound.
/// @return false: not locked, and not to be had: the service thread is held up by something else than a peer
bool TTess::lockConns() noexcept
{
    while (!connLock.lockWithin(LOCK_PATIENCE)) {
        if (stopRequested == 0 && !stopWaits()) continue;
        g_endUnboundedWaits = true;
        if (connLock.lockWithin(LAST_LOCK_PATIENCE)) return true;
        g_endWaits = true;
        serviceHeldUp = !connLock.lockWithin(LAST_LOCK_PATIENCE);
        return !serviceHeldUp;
    }
    return true;
}

/// Looks through the messages that have arrived, up to a stop message, and keeps them for later.
bool TTess::stopWaits() noexcept
try {
    while (!stopSeen && laterMsgs.size() < MAX_LATER_MSGS) {
        TLaterMsg later;
        later.length = static_cast<std::int32_t>(g_qMgr.getMsg(&later.msg, MSG_QUEUE_ALL, false));
        if (later.length <= 0) break;
        laterMsgs.push_back(later);
        stopSeen = later.msg.kind == MSG_STOP;
    }
    return stopSeen;
} catch (const std::bad_alloc&) {
    return false; // that message is lost; the next look may go better
}

/// Writes a process's answer to the connection that asked. When that is gone the answer is dropped.
void TTess::handleReply() noexcept
{
    const std::int32_t textEnd = inLen - static_cast<std::int32_t>(MSG_HEADER_BYTES);
    inMsg.text[std::clamp<std::int32_t>(textEnd, 0, MSG_TEXT_BYTES - 1)] = '\0';
    if (!lockConns()) return;
    const std::scoped_lock lock(std::adopt_lock, connLock);
    for (std::size_t i = 0; TPortConn* conn = liveAt(conns, i); ++i) {
        if (conn->connId != (inMsg.tag & 0xFFFF'0000U)) continue;
        (void)conn->write(&inMsg); // the connection has logged a failure; the service thread finds out that it is gone
        return;
    }
}

void TTess::handleRegister() noexcept
{
    switch (registerProc()) {
    case 0:
        return replyRegistry(true, "Process register operation successful");
    case 1:
        return replyRegistry(false, "Command register request with nothing enabled");
    case 2:
        return replyRegistry(false, "Max # of registered processes reached");
    case 3:
        return replyRegistry(false, "Couldn't allocate memory for process register request");
    default:
        return replyRegistry(false, "Process register operation failed");
    }
}

void TTess::handleUnregister() noexcept
{
    switch (unregisterProc()) {
    case 0:
        return replyRegistry(true, "Process unregister operation successful");
    case 1:
        return replyRegistry(false, "Registered process list is empty");
    case 2:
        return replyRegistry(false, "Process not found in registered process list");
    default:
        return replyRegistry(false, "Process unregister operation failed");
    }
}

/// Copies the text without its NUL over the last one: a shorter text carries the tail of a longer one (deliberate).
void TTess::replyRegistry(bool success, std::string_view text) noexcept
{
    replyMsg.kind = MSG_REPLY;
    replyMsg.tag = success ? 0 : static_cast<std::uint32_t>(-1);
    replyMsg.len = 0;
    std::memcpy(replyMsg.text, text.data(), text.size());
    inLen = static_cast<std::int32_t>(MSG_HEADER_BYTES + ::strnlen(replyMsg.text, MSG_TEXT_BYTES - 1) + 1);
}

/// Writes raw bytes out of the serial line, if it has a connection. Without one the answer keeps the length received and the
/// kind of the answer before it (deliberate).
void TTess::handleCom2Write() noexcept
{
    const std::size_t count = static_cast<std::size_t>(std::clamp<std::int32_t>(inMsg.len, 0, MSG_TEXT_BYTES));
    // Non-blocking: a line without carrier would hold up its opening, and writeToLine() wants it.
    const int line = ::open(TPortCom2::DEVICE, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    replyMsg.len = 1;
    replyMsg.tag = inMsg.tag;
    if (lockConns()) {
        const std::scoped_lock lock(std::adopt_lock, connLock);
        for (std::size_t i = 0; TPortConn* conn = liveAt(conns, i); ++i) {
            if (conn->isSerialLine() == 0) continue;
            (void)conn->startMute(); // always 0
            const bool written = line >= 0 && writeToLine(line, inMsg.text, count);
            replyMsg.len = written ? 0 : 1;
            replyMsg.kind = MSG_REPLY;
            inLen = MSG_HEADER_BYTES;
        }
    }
    if (line >= 0) (void)::close(line);
}

/// The answer has the length of the request, and the tag and len of the answer before it (deliberate).
void TTess::handleReset() noexcept
{
    logMessage(daemon_log::resetReceived);
    replyMsg.kind = MSG_REPLY;
    inMsg.text[MSG_TEXT_BYTES - 1] = '\0';
    const std::string_view text =
        resetDevice(inMsg.text) == 0 ? "OK\r\n\r\n" : "Error Processing RESET Command\r\n\r\n";
    std::memcpy(replyMsg.text, text.data(), text.size() + 1);
}
