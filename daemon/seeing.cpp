// Who is there, what is passing: the messages that ask for it, and what the loops add to it.
#include <cstring>
#include <new>

#include "common/counters.h"
#include "common/wake_up.h"
#include "common/watch_feed.h"
#include "connections/witness.h"
#include "daemon/tess.h"
#include "framework/tess_messages.h"

namespace {

using std::chrono::floor;
using std::chrono::seconds;

const char* loginWait(const TPortConn& conn)
{
    if (conn.login.owes == LoginOwes::verdict) return "password check";
    return conn.loginState == LOGIN_WAIT_PASSWORD ? "password" : "user name";
}

/// What a connection waits for besides its next line.
std::string waitOf(const TPortConn& conn)
{
    if (conn.loginState != LOGIN_DONE) return loginWait(conn);
    switch (conn.progress.wait) {
    case CmdProgress::Wait::room:
        return "queue " + std::to_string(conn.progress.queueWaiter.address);
    case CmdProgress::Wait::reInit:
        return "re-initialising";
    case CmdProgress::Wait::nothing:
        break;
    }
    return conn.output != nullptr && conn.output->waitsFor() >= 0 ? "line" : "";
}

StatusReport::Connection reportOf(const TPortConn& conn, Instant now)
{
    return {conn.connId,
            conn.portId,
            peerOf(conn),
            std::string(conn.user.view()),
            floor<seconds>(now - conn.begin),
            floor<seconds>(now - conn.lastActive()),
            waitOf(conn)};
}

std::string_view resultText(ResetResult result)
{
    switch (result) {
    case RESET_STARTED:
        return "started";
    case RESET_WAITS:
        return "waits";
    default:
        return "refused";
    }
}

} // namespace

StatusReport TTess::report()
{
    StatusReport result{floor<seconds>(instantNow() - begin), g_watch.watchers(), {}, {}, {}};
    for (const TCmdPort* port : ports)
        if (port != nullptr)
            result.ports.push_back({port->portType, port->isOpen, port->activeConns.load(), port->maxConns});
    reportConnections(result);
    reportProcesses(result);
    return result;
}

void TTess::reportConnections(StatusReport& to)
{
    const std::scoped_lock lock(connLock);
    const Instant now = instantNow();
    for (const TPortConn* conn : conns)
        if (conn != nullptr) to.connections.push_back(reportOf(*conn, now));
}

void TTess::reportProcesses(StatusReport& to)
{
    const std::scoped_lock lock(regLock);
    for (const TRegisteredProc* proc : regProcs) {
        if (proc == nullptr) continue;
        to.processes.push_back({proc->name, proc->procId, proc->portMask, proc->sent.value(), proc->answered.value(),
                                fullQueues.isFull(proc->procId)});
    }
}

/// Answers the sender of the message in as many records as that takes.
void TTess::sendText(std::uint32_t kind, std::string_view text) noexcept
try {
    const std::vector<std::string_view> pieces = piecesOf(text, MSG_TEXT_BYTES - 1);
    TOrbAttachmentMsg record; // its text is filled as far as it is sent
    record.kind = kind;
    record.sender = 0;
    record.tag = inMsg.tag;
    record.len = static_cast<std::int32_t>(pieces.size());
    bool isKept = false;
    for (const std::string_view piece : pieces) {
        --record.len;
        const std::size_t length = MSG_HEADER_BYTES + putText(record.text, piece) + 1;
        const std::scoped_lock lock(regLock);
        isKept = waitingAnswers.send(inMsg.sender, record, static_cast<long>(length)) || isKept;
    }
    if (isKept) g_wakeUp.wake();
} catch (const std::bad_alloc&) { // whoever asks has to ask again
}

bool TTess::handleStatus() noexcept
try {
    sendText(MSG_STATUS_TEXT, statusText(report()));
    return false;
} catch (const std::bad_alloc&) { // as above
    return false;
}

/// Once the sender has the answer, it is told all that happens: so it is a watcher before that.
bool TTess::handleWatch() noexcept
{
    if (inMsg.sender == 0) return false; // it has no queue
    const bool wanted = inLen > static_cast<std::int32_t>(MSG_HEADER_BYTES) && inMsg.text[0] == 1;
    const bool takesIt = wanted && g_watch.takes(inMsg.sender);
    if (!wanted) g_watch.remove(inMsg.sender);
    if (takesIt) g_watch.add(inMsg.sender);
    sendText(MSG_WATCH_TEXT, takesIt ? "watch on=1\n" : wanted ? "watch on=0 full=1\n" : "watch on=0\n");
    return false;
}

/// But for what the daemon sends to itself to wake up.
void TTess::countUnknown() const noexcept
{
    if (inMsg.sender != TESS_QUEUE_ID) g_counters.unknown.add();
}

/// Only this thread changes the registry, so it looks without the lock.
void TTess::countAnswer() noexcept
{
    for (TRegisteredProc* proc : regProcs) {
        if (proc == nullptr || proc->procId != inMsg.sender) continue;
        proc->answered.add();
        return;
    }
}

void TTess::tellRegistered() noexcept
{
    if (!someoneListens()) return;
    constexpr std::size_t NAME = sizeof(TRegisteredProc::portMask);
    const std::string_view name(inMsg.text + NAME, ::strnlen(inMsg.text + NAME, MSG_TEXT_BYTES - NAME));
    for (const TRegisteredProc* proc : regProcs)
        if (proc != nullptr && proc->name == name) return witness::registered(inMsg.sender, name, proc->portMask);
}

void TTess::tellReset(ResetResult result) noexcept
{
    witness::reset(inMsg.sender, inMsg.text, resultText(result));
}

/// Before every wait of the service loop.
void TTess::endRound() noexcept
{
    g_counters.delays.set(static_cast<std::uint32_t>(delayQueues.lines().size()));
    g_watch.flush();
}
