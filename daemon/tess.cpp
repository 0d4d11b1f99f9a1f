#include "daemon/tess.h"

#include <chrono>
#include <cstdlib>
#include <memory>
#include <new>
#include <sched.h>

#include "commands/live_list.h"
#include "connections/waiting.h"
#include "daemon/daemon_log.h"
#include "daemon/reset.h"
#include "daemon/service_gate.h"
#include "daemon/signals.h"
#include "framework/hr_time_out.h"
#include "framework/tess_messages.h"
#include "ports/milestone.h"
#include "ports/port_com2.h"
#include "ports/port_ipc_socket.h"
#include "ports/port_telnet.h"
#include "ports/xcp_port.h"

std::atomic<TTess*> g_tess{nullptr};
pthread_t g_serviceThread = static_cast<pthread_t>(-1);

namespace {

constexpr timeval SERVICE_END_TIME{2, 0};
constexpr std::chrono::seconds GATE_PATIENCE{10};               // no wait for a peer outlasts g_endWaits
constexpr std::size_t MAX_TOKENS = TPortConn::RX_BYTES / 2 + 1; // every second character of a line a separator

template <class Port> void createPort(std::vector<TCmdPort*>& ports, const LogMessage& start, const LogMessage& failure)
{
    logMessage(start);
    if (Port* const port = new (std::nothrow) Port)
        ports.push_back(port);
    else
        logMessage(failure);
}

} // namespace

TTess::TTess(long queueId, bool com2, bool telnet, bool xcp, bool ipc)
    : TMsgDmn(queueId, true), commandContext{outMsg, outLen, regProcs, regLock, delayQueues, tokens, resetDevice}
{
    setMilestone(7);
    g_endWaits = false;
    g_endUnboundedWaits = false;
    tokens.reserve(MAX_TOKENS);
    try {
        createPorts(com2, telnet, xcp, ipc);
    } catch (...) {
        deletePorts();
        throw;
    }
    clearRegistry();
    installSignalHandlers();
    setMilestone(8);
}

void TTess::createPorts(bool com2, bool telnet, bool xcp, bool ipc)
{
    if (com2) createPort<TPortCom2>(ports, daemon_log::initCom2, daemon_log::noCom2);
    if (telnet) createPort<TPortTelnet>(ports, daemon_log::initTelnet, daemon_log::noTelnet);
    if (xcp) createPort<TXCPPort>(ports, daemon_log::initXcp, daemon_log::noXcp);
    if (ipc) createPort<TPortIPCSocket>(ports, daemon_log::initIpc, daemon_log::noIpc);
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
    setMilestone(9);
    g_endUnboundedWaits = true;
    const TOrbHRTimeOut serviceEnd(SERVICE_END_TIME);
    setMilestone(300);
    while (!serviceDone && !serviceEnd.hasTimedOut())
        ::sched_yield();
    const bool started = g_serviceThread != static_cast<pthread_t>(-1);
    if (serviceDone) {
        if (started) (void)::pthread_join(g_serviceThread, nullptr); // it has ended
    } else {
        // After a stop message nobody has told the service thread to end. It is left running, outside of this object.
        g_endWaits = true;
        if (serviceHeldUp || !g_serviceGate.close(GATE_PATIENCE)) endWithoutServiceThread();
        (void)::pthread_detach(g_serviceThread); // it exists and is not joined
    }
    g_serviceThread = static_cast<pthread_t>(-1);
    setMilestone(301);
    closeAllConns();
    setMilestone(302);
    deletePorts();
    setMilestone(303);
    setMilestone(10);
    g_tess = nullptr; // a signal that arrives from here on finds no daemon
}

/// The end of the process while the service thread is held up in something that has no bound, which the device's version
/// re-initialisation is alone in having: nothing is freed, because the thread may come back any time.
void TTess::endWithoutServiceThread() noexcept
{
    for (TCmdPort* port : ports)
        if (port != nullptr) (void)port->closePort(); // always 0
    logMessage(daemon_log::normalExit);
    std::_Exit(EXIT_SUCCESS);
}

int TTess::startService()
{
    g_serviceGate.open(this);
    serviceDone = false; // a stop message may be handled before the thread has run its first line
    const int error = ::pthread_create(&g_serviceThread, nullptr, serviceThread, this);
    if (error != 0) serviceDone = true;
    return error;
}

void TTess::requestStop() noexcept
{
    setMilestone(42);
    stopRequested = 1;
    g_endUnboundedWaits = true;
    g_endWaits = true;
}

void TTess::continueAsCopy() noexcept
{
    connLock.forgetWaiters();
    std::construct_at(&regLock);
}

void TTess::closeAllConns() noexcept
{
    setMilestone(38);
    logMessage(daemon_log::closingAll);
    if (!lockConns()) return;
    const std::scoped_lock lock(std::adopt_lock, connLock);
    while (liveAt(conns, 0) != nullptr)
        (void)removeConn(0); // the slot is live, so it goes whatever the result
    setMilestone(39);
}

void TTess::closeTelnetConns() noexcept
{
    setMilestone(38);
    logMessage(daemon_log::closingTelnet);
    if (!lockConns()) return;
    const std::scoped_lock lock(std::adopt_lock, connLock);
    for (std::size_t i = 0; i < conns.size();) {
        const bool isTelnet = conns[i] != nullptr && conns[i]->getPortId() == PORT_TELNET;
        // What moves to the front after a removal there is passed over, and so is what follows a failed removal
        // (deliberate).
        if (isTelnet && removeConn(i) == 0 && i != 0) continue;
        ++i;
    }
    setMilestone(39);
}
