// The service thread: accepts, waits for input, hands command lines to the interpreter.
#include "daemon/tess.h"

#include <algorithm>
#include <sys/select.h>

#include "commands/delay_queue.h"
#include "commands/interpreter.h"
#include "commands/live_list.h"
#include "daemon/service_gate.h"
#include "framework/tess_messages.h"
#include "ports/milestone.h"

namespace {

constexpr timeval IDLE_WAIT{1, 0};
constexpr timeval DELAYED_WAIT{0, 250'000};

bool fitsSet(int fd)
{
    return fd >= 0 && fd < FD_SETSIZE;
}

} // namespace

void* TTess::serviceThread(void* daemon)
{
    setMilestone(6);
    static_cast<TTess*>(daemon)->serviceLoop();
    return nullptr;
}

void TTess::serviceLoop() noexcept
{
    setMilestone(17);
    int maxFd = -1;
    for (bool first = true;; first = false) {
        timeval wait{};
        fd_set readSet;
        {
            const ServiceGate::Stay stay(g_serviceGate, this);
            if (!stay) return;
            if (first || maxFd != -1) acceptConnections();
            if (!first && maxFd != -1) servicePass();
            if (stopRequested != 0) {
                setMilestone(21);
                serviceDone = true;
                return;
            }
            setMilestone(18);
            maxFd = collectDescriptors(readSet);
            setMilestone(20);
            wait = IDLE_WAIT;
            if (!delayQueues.empty()) {
                runDelays(commandContext);
                wait = DELAYED_WAIT;
            }
        }
        // Without any descriptor there is no wait (deliberate). Errors, EINTR among them, are as good as input: every
        // connection looks for itself.
        if (maxFd != -1) (void)::select(maxFd + 1, &readSet, nullptr, nullptr, &wait);
    }
}

/// @return highest descriptor of the set or just left out of it, -1 when there is none
int TTess::collectDescriptors(fd_set& readSet) noexcept
{
    FD_ZERO(&readSet);
    int maxFd = -1;
    for (std::size_t i = 0; const TCmdPort* port = liveAt(ports, i); ++i) {
        if (!fitsSet(port->fd)) continue;
        if (!port->rests()) FD_SET(port->fd, &readSet);
        maxFd = std::max(maxFd, port->fd);
    }
    setMilestone(19);
    const std::scoped_lock lock(connLock);
    for (std::size_t i = 0; TPortConn* conn = liveAt(conns, i); ++i) {
        if (!fitsSet(conn->fd)) continue;
        // A muted or unplugged serial line is taken out again: its port has put the same descriptor in.
        if ((conn->isSerialLine() != 0 && conn->muteExpired() == 0) || conn->rests())
            FD_CLR(conn->fd, &readSet);
        else
            FD_SET(conn->fd, &readSet);
        maxFd = std::max(maxFd, conn->fd);
    }
    return maxFd;
}

void TTess::acceptConnections() noexcept
{
    setMilestone(28);
    for (std::size_t i = 0; TCmdPort* port = liveAt(ports, i); ++i) {
        TPortConn* conn = nullptr;
        if (port->chkNewConn(&conn) != 1 || conn == nullptr) continue;
        const std::scoped_lock lock(connLock);
        conns.push_back(conn);
    }
    setMilestone(29);
}

void TTess::servicePass() noexcept
{
    setMilestone(30);
    outMsg.kind = MSG_TEXT;
    const std::scoped_lock lock(connLock);
    for (std::size_t i = 0; TPortConn* conn = liveAt(conns, i); ++i) {
        if (conn->loginState == LOGIN_DONE) {
            serviceConn(i);
        } else if (!loginStep(*conn, outMsg, userName)) {
            (void)removeConn(i); // it fails for no port only; the connection is gone either way
            --i;                 // whoever moved here gets its turn
        }
    }
    setMilestone(31);
}

/// Reads a connection and serves its lines. After a removal `index` stays, so that the connection that moves there waits for
/// the next pass (deliberate).
void TTess::serviceConn(std::size_t& index) noexcept
{
    TPortConn& conn = *conns[index];
    const int lineCount = conn.readCmd();
    if (lineCount < 0 || (lineCount == 0 && conn.hasTimedOut() != 0))
        (void)removeConn(index); // as above
    else if (lineCount > 0)
        serviceLines(index, lineCount);
}

/// Hands the lines of one read to the interpreter. When a line closes its connection, `index` steps back, and the lines
/// left are taken from the connection now there (deliberate).
void TTess::serviceLines(std::size_t& index, int lineCount) noexcept
{
    for (std::size_t j = 0; j < static_cast<std::size_t>(lineCount); ++j) {
        TPortConn* const conn = conns[index];
        if (processCmd(conn, &conn->cmds[j]) != CMD_CLOSE_CONNECTION) continue;
        (void)removeConn(index);
        --index;                                            // from 0 to the value that ++ brings back to 0
        if (index >= conns.size() || !conns[index]) return; // nobody stands in front
    }
}

int TTess::processCmd(TPortConn* conn, const TCmdEntry* cmd) noexcept
{
    return ::processCmd(commandContext, conn, cmd);
}

/// Disposes of the connection at `index`, through its port, and erases it from the list. Needs connLock.
/// @return 0; 1 when no port claims it, or the slot is empty (then nothing is done)
int TTess::removeConn(std::size_t index) noexcept
{
    setMilestone(36);
    if (conns[index] == nullptr) return 1;
    int result = 1;
    for (std::size_t i = 0; TCmdPort* port = liveAt(ports, i); ++i) {
        if (port->portType != conns[index]->getPortId()) continue;
        result = port->closeConn(&conns[index]);
        break;
    }
    delete conns[index]; // null unless no port has claimed it
    conns.erase(conns.begin() + static_cast<std::ptrdiff_t>(index));
    setMilestone(37);
    return result;
}
