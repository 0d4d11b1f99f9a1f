#include "ports/port_telnet.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netinet/tcp.h>

#include "common/milestone.h"
#include "connections/telnet_conn.h"
#include "framework/tess_messages.h"
#include "ports/port_log.h"
#include "ports/socket_options.h"

namespace {

/// An IPv4 address in dotted decimal.
class DottedAddress {
public:
    explicit DottedAddress(const sockaddr_in& address)
    {
        (void)::inet_ntop(AF_INET, &address.sin_addr, text_, sizeof text_);
    }
    const char* c_str() const { return text_; }

private:
    char text_[INET_ADDRSTRLEN]{};
};

void enlargeSendBuffer(int fd)
{
    const int bytes = TPortTelnet::CLIENT_SEND_BUFFER_BYTES;
    if (::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes) == 0) return;
    logMessage(port_log::telnetBufferFailed, std::strerror(errno));
}

/// Echo and answer are two small segments: the second would wait for the first to be acknowledged,
/// which takes 40 ms (tcp(7)).
void sendAtOnce(int fd)
{
    const int on = 1;
    (void)::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on); // without it the client only waits longer
}

} // namespace

TPortTelnet::TPortTelnet() : TCmdPort(PORT_TELNET, MAX_CONNS, 0xAA00'0000)
{
    setMilestone(Milestone::telnetConstructorBegun);
    arriving.reserve(MAX_CONNS);
    isOpen = TPortTelnet::openPort() == 0;
    setMilestone(Milestone::telnetConstructorDone);
}

TPortTelnet::~TPortTelnet()
{
    (void)TPortTelnet::closePort(); // always 0
}

int TPortTelnet::openPort()
{
    setMilestone(Milestone::telnetOpenBegun);
    if (!openSocket(AF_INET)) return 1;
    applySocketOptions(fd);
    listenAddr = {};
    listenAddr.sin_family = AF_INET;
    listenAddr.sin_port = htons(TELNET_TCP_PORT);
    listenAddr.sin_addr.s_addr = htonl(INADDR_ANY);
    listenAt(reinterpret_cast<const sockaddr*>(&listenAddr), sizeof listenAddr, "failed binding to telnet socket",
             "failed setting up telnet socket listener");
    setMilestone(Milestone::telnetOpenDone);
    return 0;
}

int TPortTelnet::closePort()
{
    setMilestone(Milestone::telnetCloseBegun);
    for (TPortConn*& conn : arriving)
        (void)closeConn(&conn); // always 0
    arriving.clear();
    if (closeEndpoint()) logMessage(port_log::telnetPortClosed);
    setMilestone(Milestone::telnetCloseDone);
    return 0;
}

int TPortTelnet::chkNewConn(TPortConn** newConn)
{
    setMilestone(Milestone::telnetCheckBegun);
    const bool rests = !wantsInput && instantNow() < due;
    if (!rests && clientWaits()) acceptClient();
    const int result = handOut(takeArrived(), newConn);
    setMilestone(Milestone::telnetCheckDone);
    return result;
}

void TPortTelnet::acceptClient()
{
    sockaddr_in peer{};
    socklen_t peerSize = sizeof peer;
    TPortConn* conn = acceptConn(makeConn<TTelnetConn>, reinterpret_cast<sockaddr*>(&peer), &peerSize);
    if (conn == nullptr) return;
    auto* const client = static_cast<TTelnetConn*>(conn);
    client->peerAddr = peer;
    if (mayStay(*client)) {
        enlargeSendBuffer(client->fd);
        sendAtOnce(client->fd);
        arriving.push_back(client);
        return;
    }
    // The client is closed either way, so that no result matters.
    if (activeConns > maxConns) (void)client->writeText("Connection refused: limit reached.\r\n");
    (void)closeConn(&conn);
}

/// Goes on with the clients that are arriving, until one is ready: the others are still ready, or
/// due, next time.
/// @return that one; null when there is none
TPortConn* TPortTelnet::takeArrived()
{
    for (std::size_t i = 0; i < arriving.size();) {
        auto* const client = static_cast<TTelnetConn*>(arriving[i]); // this port makes no other connections
        const int result = client->negotiateOptions();
        if (result == 2) {
            ++i;
            continue;
        }
        TPortConn* conn = client;
        arriving.erase(arriving.begin() + static_cast<std::ptrdiff_t>(i));
        if (result == 0) {
            logMessage(port_log::telnetOpened, Hex{client->connId - CONN_ID_STEP},
                       DottedAddress(client->peerAddr).c_str());
            return conn;
        }
        (void)client->writeText("\r\n"); // it is closed either way
        (void)closeConn(&conn);          // always 0
    }
    return nullptr;
}

int TPortTelnet::closeConn(TPortConn** conn)
{
    setMilestone(Milestone::telnetCloseConnBegun);
    if (*conn != nullptr) {
        const DottedAddress peer(static_cast<TTelnetConn*>(*conn)->peerAddr); // this port makes no other connections
        (void)dispose(conn);                                                  // it is there
        logMessage(port_log::telnetGone, peer.c_str(), activeConns.load());
    }
    setMilestone(Milestone::telnetCloseConnDone);
    return 0;
}
