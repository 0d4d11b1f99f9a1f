#pragma once

#include <netinet/in.h>

#include "ports/cmd_port.h"

/// The port for telnet clients: TELNET_TCP_PORT on all local IPv4 addresses.
class TPortTelnet final : public TCmdPort {
public:
    static constexpr std::int32_t MAX_CONNS = 10;
    static constexpr int CLIENT_SEND_BUFFER_BYTES = 65536;

    /// @throws std::runtime_error "failed binding to telnet socket", "failed setting up telnet
    ///         socket listener"
    TPortTelnet();
    ~TPortTelnet() override;

    int openPort() override;

    /// As TCmdPort::closePort(), but the clients that are still arriving are disposed of.
    int closePort() override;

    /// As TCmdPort::chkNewConn(). A client is handed out when its option negotiation
    /// (TTelnetConn::negotiateOptions()) is done; until then it is one of `arriving`. A client over
    /// the limit is told so.
    int chkNewConn(TPortConn** newConn) override;
    int closeConn(TPortConn** conn) override;

    sockaddr_in listenAddr{};

private:
    void acceptClient();
    TPortConn* takeArrived();
};
