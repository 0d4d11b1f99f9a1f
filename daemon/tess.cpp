#include "daemon/tess.h"

#include <new>
#include <unistd.h>

#include "common/live_list.h"
#include "common/message_wake.h"
#include "common/milestone.h"
#include "common/process_copy.h"
#include "common/wake_up.h"
#include "connections/local_conn.h"
#include "daemon/daemon_log.h"
#include "daemon/signals.h"
#include "framework/tess_messages.h"
#include "ports/port_com2.h"
#include "ports/port_ipc_socket.h"
#include "ports/port_telnet.h"
#include "ports/xcp_port.h"

constexpr pthread_t NO_THREAD = static_cast<pthread_t>(-1);

std::atomic<TTess*> g_tess{nullptr};
pthread_t g_serviceThread = NO_THREAD;

namespace {

constexpr std::chrono::seconds SERVICE_END_TIME{2};
// Room for all of them, so that what has been made always finds its place.
constexpr std::size_t MOST_PORTS = 4;
constexpr std::size_t MOST_CONNS = 1 + TPortTelnet::MAX_CONNS + 2 * LocalSocketPort::MAX_CONNS; // COM2 has one
constexpr std::size_t MAX_TOKENS = TPortConn::RX_BYTES / 2 + 1; // every second character of a line a separator

template <class Port>
void createPort(std::vector<TCmdPort*>& ports, const LogMessage<>& start, const LogMessage<>& failure)
{
    logMessage(start);
    if (Port* const port = new (std::nothrow) Port)
        ports.push_back(port);
    else
        logMessage(failure);
}

void wakeBothThreads()
{
    g_wakeUp.wake();
    wakeMessageLoop();
}

/// For the signal handler.
void stopDaemon()
{
    if (TTess* const tess = g_tess) tess->requestStop();
}

void startInForkedChild()
{
    if (TTess* const tess = g_tess) tess->startInForkedChild();
}

[[maybe_unused]] const int atFork = ::pthread_atfork(nullptr, nullptr, startInForkedChild);

} // namespace

TTess::TTess(long queueId, bool com2, bool telnet, bool xcp, bool ipc)
    : TMsgDmn(queueId, true), reInit(wakeBothThreads), reset(reInit, [this] { return forkWhole(); }),
      commandContext{
          outMsg,      outLen,     regProcs,
          regLock,     fullQueues, delayQueues,
          delayedLine, tokens,     [this](const char* line, const void* asker) { return reset.ask(line, asker); }}
{
    setMilestone(Milestone::daemonConstructorBegun);
    g_wakeUp.open();
    tokens.reserve(MAX_TOKENS);
    ports.reserve(MOST_PORTS);
    conns.reserve(MOST_CONNS);
    try {
        createPorts(com2, telnet, xcp, ipc);
    } catch (...) {
        deletePorts();
        throw;
    }
    clearRegistry();
    installSignalHandlers(stopDaemon);
    setMilestone(Milestone::daemonConstructorDone);
}

void TTess::createPorts(bool com2, bool telnet, bool xcp, bool ipc)
{
    if (com2) createPort<TPortCom2>(ports, daemon_log::initCom2, daemon_log::noCom2);
    if (telnet) createPort<TPortTelnet>(ports, daemon_log::initTelnet, daemon_log::noTelnet);
    if (xcp) createPort<TXCPPort>(ports, daemon_log::initXcp, daemon_log::noXcp);
    if (ipc) createPort<TPortIPCSocket>(ports, daemon_log::initIpc, daemon_log::noIpc);
}

std::uint32_t TTess::openPorts() noexcept
{
    std::uint32_t open = 0;
    for (std::size_t i = 0; const TCmdPort* port = liveAt(ports, i); ++i)
        if (port->isOpen) open |= port->portType;
    return open;
}

void TTess::deletePorts() noexcept
{
    for (TCmdPort*& port : ports) {
        delete port;
        port = nullptr;
    }
    ports.clear();
}

TTess::~TTess()
{
    setMilestone(Milestone::daemonDestructorBegun);
    reInit.cancel();
    {
        const std::scoped_lock lock(connLock);
        serviceEnd = instantNow() + SERVICE_END_TIME;
    }
    g_wakeUp.wake();
    setMilestone(Milestone::serviceEndSet);
    // Cannot hang: the service thread waits for a second at most, and ends at serviceEnd.
    if (g_serviceThread != NO_THREAD) (void)::pthread_join(g_serviceThread, nullptr);
    g_serviceThread = NO_THREAD;
    setMilestone(Milestone::serviceThreadJoined);
    closeAllConns();
    answerWhatIsOver();
    setMilestone(Milestone::connectionsClosed);
    deletePorts();
    setMilestone(Milestone::portsDeleted);
    setMilestone(Milestone::daemonDestructorDone);
    g_tess = nullptr; // a signal that arrives from here on finds no daemon
}

int TTess::startService()
{
    serviceDone = false;
    const int error = ::pthread_create(&g_serviceThread, nullptr, serviceThread, this);
    if (error != 0) {
        g_serviceThread = NO_THREAD;
        serviceDone = true;
    }
    return error;
}

// Called by a signal handler. Every other thread that handles signals has been joined before the
// daemon is freed.
void TTess::requestStop() noexcept
{
    setMilestone(Milestone::stopRequested);
    stopRequested = 1;
    g_wakeUp.wake();
}

/// fork(2) at a moment when no other thread is in the middle of a change, so that a copy begins
/// with whole lists and free locks.
int TTess::forkWhole() noexcept
{
    std::unique_lock conns(connLock, std::defer_lock);
    if (!connLock.isMine()) conns.lock();
    const std::scoped_lock lock(regLock);
    return ::fork();
}

void TTess::startInForkedChild() noexcept
{
    g_isCopy = true;
    g_serviceThread = NO_THREAD; // if it is the calling one, it is nobody's to join
    connLock.forgetWaiters();
    LocalConn::startInForkedChild();
    answers.startInForkedChild();
    queue.forget();
    reInit.startInCopy();
    resetMsg.waits = false; // the original answers it
}

void endDaemon() noexcept
{
    delete g_tess.load();
    setMilestone(Milestone::daemonDeleted);
    g_tess = nullptr;
    logMessage(daemon_log::normalExit);
    setMilestone(Milestone::exitLogged);
}

void TTess::closeAllConns() noexcept
{
    setMilestone(Milestone::closeConnectionsBegun);
    logMessage(daemon_log::closingAll);
    const std::scoped_lock lock(connLock);
    while (liveAt(conns, 0) != nullptr)
        (void)removeConn(0); // the slot is live, so it goes whatever the result
    setMilestone(Milestone::closeConnectionsDone);
}

void TTess::closeTelnetConns() noexcept
{
    setMilestone(Milestone::closeConnectionsBegun);
    logMessage(daemon_log::closingTelnet);
    const std::scoped_lock lock(connLock);
    for (std::size_t i = 0; i < conns.size();) {
        const bool isTelnet = conns[i] != nullptr && conns[i]->getPortId() == PORT_TELNET;
        // After a removal at index 0, and after one that no port has claimed, the connection that
        // has moved up to `i` is skipped, and may stay open (deliberate).
        if (isTelnet && removeConn(i) == 0 && i != 0) continue;
        ++i;
    }
    setMilestone(Milestone::closeConnectionsDone);
}
