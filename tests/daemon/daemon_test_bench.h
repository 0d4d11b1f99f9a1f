#pragma once

#include <array>
#include <csignal>
#include <memory>
#include <vector>

#include "daemon/tess.h"
#include "framework/tess_messages.h"
#include "tests/support/fake_conn.h"
#include "tests/support/fake_port.h"
#include "tests/support/lock_probe.h"
#include "tests/support/log_capture.h"
#include "tests/support/queue_process.h"
#include "tests/support/tess_peer.h"

/// Puts the handlers of signals back that a daemon installs.
class SignalsRestored {
public:
    SignalsRestored()
    {
        for (std::size_t i = 0; i < SIGNALS.size(); ++i)
            ::sigaction(SIGNALS[i], nullptr, &before_[i]);
    }
    SignalsRestored(const SignalsRestored&) = delete;
    SignalsRestored& operator=(const SignalsRestored&) = delete;
    ~SignalsRestored()
    {
        for (std::size_t i = 0; i < SIGNALS.size(); ++i)
            ::sigaction(SIGNALS[i], &before_[i], nullptr);
    }

private:
    static constexpr std::array SIGNALS{SIGQUIT, SIGTERM, SIGSEGV, SIGPIPE, SIGCHLD};

    std::array<struct sigaction, SIGNALS.size()> before_{};
};

/// A daemon on a queue of its own. Its log is caught.
class DaemonTestBench {
public:
    enum Ports { WITHOUT_PORTS, WITH_LOCAL_PORTS };

    explicit DaemonTestBench(Ports ports = WITHOUT_PORTS)
        : tess(std::make_unique<TTess>(TESS_QUEUE_ID, false, false, ports == WITH_LOCAL_PORTS,
                                       ports == WITH_LOCAL_PORTS)),
          peer(*tess)
    {
        g_wakeUp.clear(); // of what an earlier daemon's end has left
    }
    DaemonTestBench(const DaemonTestBench&) = delete;
    DaemonTestBench& operator=(const DaemonTestBench&) = delete;
    ~DaemonTestBench() { endDaemon(); }

    void endDaemon()
    {
        if (!tess) return;
        peer.clearRegistry(); // the daemon leaves its records behind
        tess.reset();
    }

    FakePort& addPort(std::uint32_t type)
    {
        auto* const port = new FakePort(type);
        peer.ports().push_back(port);
        return *port;
    }

    /// @param name  shows up in `events`
    FakeConn& addConn(std::uint32_t portType, std::uint32_t id, const char* name = "")
    {
        auto* const conn = new FakeConn(portType, id, name, &events);
        peer.conns().push_back(conn);
        return *conn;
    }

    void registerProcess(long procId, std::uint32_t portMask, std::string name)
    {
        peer.regProcs().push_back(new TRegisteredProc{static_cast<std::int32_t>(procId), portMask, std::move(name)});
    }

    /// Lets the daemon handle what is in its queue.
    void serveQueue()
    {
        const QueueProcess stopper(directory, 9999);
        const Outgoing stop = message(MSG_STOP);
        if (!stopper.send(TESS_QUEUE_ID, stop.record, stop.length)) std::abort();
        (void)tess->run(); // always 0
    }

    /// Lets the daemon handle one message of a process.
    void serve(const QueueProcess& from, const Outgoing& request)
    {
        if (!from.send(TESS_QUEUE_ID, request.record, request.length)) std::abort();
        serveQueue();
    }

    LogCapture log;
    Events events; ///< of connections
    SignalsRestored signals;
    TempQueueDir directory;
    std::unique_ptr<TTess> tess;
    TessPeer peer;
};
