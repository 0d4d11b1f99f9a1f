#include "ports/port_telnet.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netinet/tcp.h>
#include <stdexcept>
#include <unistd.h>

#include "common/milestone.h"
#include "connections/telnet_conn.h"
#include "framework/fixed_text.h"
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
    const LogMessage& failed = port_log::telnetBufferFailed;
    logMgr.log(failed.id, (FixedText<128>() << failed.text << std::strerror(errno)).c_str());
}

void logOpened(const TTelnetConn& conn)
{
    const LogMessage& opened = port_log::telnetOpened;
    FixedText<96> text;
    text << opened.text;
    text.hex(conn.connId - TCmdPort::CONN_ID_STEP) << port_log::telnetFrom << DottedAddress(conn.peerAddr).c_str();
    logMgr.log(opened.id, text.c_str());
}

/// Echo and answer are two small segments: the second would wait for the first to be acknowledged, which takes 40 ms (tcp(7)).
void sendAtOnce(int fd)
{
    const int on = 1;
    (void)::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on); // without it the client only waits longer
}

} // namespace

TPortTelnet::TPortTelnet() : TCmdPort(PORT_TELNET, MAX_CONNS, 0xAA00'0000)
{
    setMilestone(1010);
    arriving.reserve(MAX_CONNS);
    isOpen = TPortTelnet::openPort() == 0;
    setMilestone(1011);
}

TPortTelnet::~TPortTelnet()
{
    (void)TPortTelnet::closePort(); // always 0
}

int TPortTelnet::openPort()
{
    setMilestone(1012);
    fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0); // accept() must never block
    if (fd < 0) return 1;
    applySocketOptions(fd);
    listenAddr = {};
    listenAddr.sin_family = AF_INET;
    listenAddr.sin_port = htons(TELNET_TCP_PORT);
    listenAddr.sin_addr.s_addr = htonl(INADDR_ANY);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&listenAddr), sizeof listenAddr) != 0)
        throw std::runtime_error("failed binding to telnet socket");
    if (::listen(fd, BACKLOG) != 0) throw std::runtime_error("failed setting up telnet socket listener");
    setMilestone(1013);
    return 0;
}

int TPortTelnet::closePort()
{
    setMilestone(1014);
    for (TPortConn*& conn : arriving)
        (void)closeConn(&conn); // always 0
    arriving.clear();
    if (isOpen) {
        (void)::close(fd); // nothing is left to do for a descriptor that fails to close
        activeConns = 0;
        isOpen = false;
        logMessage(port_log::telnetPortClosed);
    }
    setMilestone(1015);
    return 0;
}

int TPortTelnet::chkNewConn(TPortConn** newConn)
{
    setMilestone(1016);
    const bool rests = !wantsInput && instantNow() < due;
    if (!rests && clientWaits()) acceptClient();
    TPortConn* const conn = takeArrived();
    if (conn != nullptr) *newConn = conn;
    setMilestone(1017);
    return conn != nullptr ? 1 : 0;
}

void TPortTelnet::acceptClient()
{
    sockaddr_in peer{};
    socklen_t peerSize = sizeof peer;
    int client = -1;
    if (!accept(client, reinterpret_cast<sockaddr*>(&peer), &peerSize)) return;
    auto* const accepted = new TTelnetConn(portType, countNewConn());
    accepted->fd = client;
    accepted->peerAddr = peer;
    if (mayStay(*accepted)) {
        enlargeSendBuffer(client);
        sendAtOnce(client);
        arriving.push_back(accepted);
        return;
    }
    if (activeConns > maxConns)
        (void)accepted->writeText("Connection refused: limit reached.\r\n"); // it is closed either way
    TPortConn* conn = accepted;
    (void)closeConn(&conn); // always 0
}

/// Goes on with the clients that are arriving, until one is ready: the others are still ready, or due, next time.
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
            logOpened(*client);
            return conn;
        }
        (void)client->writeText("\r\n"); // it is closed either way
        (void)closeConn(&conn);          // always 0
    }
    return nullptr;
}

int TPortTelnet::closeConn(TPortConn** conn)
{
    setMilestone(1018);
    if (*conn != nullptr) {
        const DottedAddress peer(static_cast<TTelnetConn*>(*conn)->peerAddr); // this port makes no other connections
        delete *conn;
        *conn = nullptr;
        activeConns -= 1;
        const LogMessage& closed = port_log::telnetClosed;
        logMgr.log(
            closed.id,
            (FixedText<96>() << closed.text << peer.c_str() << port_log::telnetActive << activeConns.load()).c_str());
    }
    setMilestone(1019);
    return 0;
}
