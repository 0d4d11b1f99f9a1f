// The service thread: waits, accepts, hands command lines to the interpreter.
#include <cstdlib>
#include <new>
#include <unistd.h>

#include "commands/delay_runner.h"
#include "commands/interpreter.h"
#include "common/live_list.h"
#include "common/message_wake.h"
#include "common/milestone.h"
#include "common/process_copy.h"
#include "common/wake_up.h"
#include "connections/local_conn.h"
#include "connections/witness.h"
#include "daemon/answer_runs.h"
#include "daemon/tess.h"
#include "framework/service_manager.h"
#include "framework/tess_messages.h"

namespace {

constexpr std::chrono::milliseconds IDLE_WAIT{1000};
constexpr std::chrono::milliseconds DELAYED_WAIT{250};

} // namespace

void* TTess::serviceThread(void* daemon)
{
    setMilestone(Milestone::serviceThreadBegun);
    auto* const tess = static_cast<TTess*>(daemon);
    tess->serviceLoop();
    if (g_isCopy) { // this process has no other thread, and no main() to return to
        endDaemon();
        ::_exit(EXIT_SUCCESS);
    }
    wakeMessageLoop();
    return nullptr;
}

void TTess::serviceLoop() noexcept
{
    setMilestone(Milestone::serviceLoopBegun);
    ServiceWatchdog watchdog; // no wait below is longer than a second
    WaitSet waits;            // what the last wait has found; before the first one, nothing
    acceptConnections(waits);
    connLock.lock();
    while (!isToEnd(instantNow())) { // with the connections locked: by one turn for a pass and the next wait
        setMilestone(Milestone::servicePassBegun);
        watchdog.alive();
        WaitSet next;
        const bool waitsForDescriptors = collectConns(next);
        unlockConns();
        setMilestone(Milestone::runningDelays);
        runDelayedLines(waits);
        serviceQueues(waits, next);
        waits = next;
        if (waitsForDescriptors) waitAndAccept(waits);
        connLock.lock();
        if (waitsForDescriptors) servicePass(waits); // without any there is no wait either (deliberate)
    }
    unlockConns();
    setMilestone(Milestone::serviceLoopDone);
    serviceDone = true;
}

/// Writes the answers that the message loop could not write meanwhile: they come behind all that
/// the pass has written.
void TTess::unlockConns() noexcept
{
    connLock.unlock();
    while (!answers.isEmpty() && connLock.try_lock()) { // else the message loop is at it
        AnswerRuns(answers.take(), conns).write();
        connLock.unlock();
    }
}

void TTess::waitAndAccept(WaitSet& waits) noexcept
{
    endRound();
    waits.wait(delayQueues.empty() ? IDLE_WAIT : DELAYED_WAIT);
    if (waits.hasInput(g_wakeUp.fd())) g_wakeUp.clear();
    acceptConnections(waits);
}

/// Needs connLock.
bool TTess::isToEnd(Instant now) const noexcept
{
    return stopRequested != 0 || now >= serviceEnd;
}

/// Needs connLock.
/// @return false when there is no descriptor of a port or a connection
bool TTess::collectConns(WaitSet& waits) noexcept
{
    for (std::size_t i = 0; const TCmdPort* port = liveAt(ports, i); ++i)
        port->addTo(waits);
    setMilestone(Milestone::collectingConnections);
    for (std::size_t i = 0; TPortConn* conn = liveAt(conns, i); ++i)
        conn->addTo(waits);
    waits.addDue(serviceEnd);
    const bool found = waits.hasDescriptors();
    waits.addInput(g_wakeUp.fd());
    return found;
}

/// Goes on with answers that have waited, and adds the queues that somebody waits for. Comes after
/// the delayed lines, which may have begun such a wait.
void TTess::serviceQueues(const WaitSet& waits, WaitSet& next) noexcept
{
    const std::scoped_lock lock(regLock);
    waitingAnswers.goOn(waits);
    fullQueues.addTo(next);
}

void TTess::acceptConnections(const WaitSet& waits) noexcept
{
    setMilestone(Milestone::acceptBegun);
    for (std::size_t i = 0; TCmdPort* port = liveAt(ports, i); ++i) {
        TPortConn* conn = nullptr;
        if (!port->isDue(waits) || port->chkNewConn(&conn) != 1 || conn == nullptr) continue;
        const std::scoped_lock lock(connLock);
        conns.push_back(conn);
        witness::connected(*conn);
    }
    setMilestone(Milestone::acceptDone);
}

void TTess::runDelayedLines(const WaitSet& waits) noexcept
{
    const bool mayRun = delayedLine.runs ? mayGoOn(delayedLine.progress, waits) : !delayQueues.empty();
    if (mayRun) runDelays(commandContext);
}

/// Needs connLock.
void TTess::servicePass(const WaitSet& waits) noexcept
{
    setMilestone(Milestone::serveBegun);
    outMsg.kind = MSG_TEXT;
    for (std::size_t i = 0; TPortConn* conn = liveAt(conns, i);) {
        serviceOutput(*conn, waits);
        const bool mayServe = conn->progress.waits() ? mayGoOn(conn->progress, waits) : conn->isDue(waits);
        i = mayServe ? serviceConn(i) : i + 1;
    }
    if (stopRequested == 0) reset.finishForgotten();
    setMilestone(Milestone::serveDone);
}

/// @return true when a line that waits is to be tried again. A RESET is not after a request to
///         stop: the device must not restart then
bool TTess::mayGoOn(const CmdProgress& progress, const WaitSet& waits) noexcept
{
    if (progress.wait == CmdProgress::Wait::reInit) return reInit.isOver(&progress) && stopRequested == 0;
    const std::scoped_lock lock(regLock);
    return fullQueues.mayTry(progress.queueWaiter, waits);
}

void TTess::serviceOutput(TPortConn& conn, const WaitSet& waits) noexcept
{
    if (conn.output == nullptr || (!waits.hasRoom(conn.output->waitsFor()) && !waits.isDue(conn.output->due()))) return;
    conn.output->goOn(waits.now());
    takeReports(*conn.output);
}

/// Takes a login step, or reads a connection and serves its lines, or goes on with those that have
/// waited.
/// @return index of the connection to look at next. A removal moves the next one up to `index`:
///         after a failed login, or a line that closed its connection, it is looked at in this
///         pass; when the peer has gone or was idle for too long, only in the next (deliberate)
std::size_t TTess::serviceConn(std::size_t index) noexcept
{
    TPortConn& conn = *conns[index];
    if (conn.loginState != LOGIN_DONE) {
        if (loginStep(conn, outMsg, userName)) return index + 1;
        // Fails only when no port claims the connection, which is removed all the same.
        (void)removeConn(index);
        return index;
    }
    if (conn.progress.waits()) return serviceLines(index);
    const int lineCount = conn.readCmd();
    if (lineCount < 0 || (lineCount == 0 && conn.hasTimedOut() != 0)) (void)removeConn(index); // as above
    if (lineCount <= 0) return index + 1;
    conn.progress.line = 0;
    conn.progress.lineCount = lineCount;
    return serviceLines(index);
}

/// Hands lines to the interpreter until one has to wait. When a line closes its connection, the
/// lines that are left are taken, by their number, from the buffer of the connection before it in
/// the list (deliberate), unless that one is held (TPortConn::isHeld()).
/// @return index of the connection to look at next
std::size_t TTess::serviceLines(std::size_t index) noexcept
{
    const int lineCount = conns[index]->progress.lineCount;
    for (int line = conns[index]->progress.line; line < lineCount; ++line) {
        TPortConn* const conn = conns[index];
        conn->progress.line = line;
        conn->progress.lineCount = lineCount;
        const int result = processCmd(commandContext, conn, &conn->cmds[static_cast<std::size_t>(line)]);
        if (result == CMD_WAITS) break;
        if (result != CMD_CLOSE_CONNECTION) continue;
        (void)removeConn(index);
        if (index == 0) return 0; // nobody stands in front
        --index;
        if (conns[index] == nullptr || conns[index]->isHeld()) break;
    }
    if (conns[index] != nullptr) conns[index]->progress.queueWaiter.turnAt = 0;
    return index + 1;
}

/// Disposes of the connection at `index`, through its port, and erases it from the list. Needs
/// connLock.
/// @return 0; 1 when no port claims it, or the slot is empty (then nothing is done)
int TTess::removeConn(std::size_t index) noexcept
{
    setMilestone(Milestone::removeConnectionBegun);
    if (conns[index] == nullptr) return 1;
    forgetConn(*conns[index]);
    int result = 1;
    for (std::size_t i = 0; TCmdPort* port = liveAt(ports, i); ++i) {
        if (port->portType != conns[index]->getPortId()) continue;
        result = port->closeConn(&conns[index]);
        break;
    }
    delete conns[index]; // null unless no port has claimed it
    conns.erase(conns.begin() + static_cast<std::ptrdiff_t>(index));
    setMilestone(Milestone::removeConnectionDone);
    return result;
}

/// Ends what a connection that is about to be removed waits for. A program that it has started runs
/// on.
void TTess::forgetConn(TPortConn& conn) noexcept
{
    witness::disconnected(conn);
    reInit.forget(&conn.progress);
    LocalConn::awaitOutput();
    {
        const std::scoped_lock lock(regLock);
        fullQueues.leave(conn.progress.queueWaiter);
    }
    if (conn.output == nullptr) return;
    conn.output->fail();
    takeReports(*conn.output);
}

/// Hands what has become of texts to the message loop, which tells their askers; without memory
/// nobody is told.
void TTess::takeReports(LineOutput& output) noexcept
try {
    for (const LineOutput::Report& report : output.takeReports())
        lineReports.push_back(report);
    if (!lineReports.empty()) wakeMessageLoop();
} catch (const std::bad_alloc&) {
}
