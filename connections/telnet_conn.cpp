#include "connections/telnet_conn.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include "common/white_space.h"
#include "connections/connection_log.h"
#include "connections/line_cutter.h"

using telnet::Byte;
using telnet::Verdict;

TTelnetConn::TTelnetConn(std::uint32_t portType, std::uint32_t id) : TPortConn(portType, id) {}

TTelnetConn::~TTelnetConn()
{
    closeSocket();
}

/// Asks select(2), because recv(2) would not mind the low water mark (setLowWaterMark()).
TTelnetConn::Ready TTelnetConn::ready()
{
    if (fd < 0 || fd >= FD_SETSIZE) return {false, false};
    fd_set urgent;
    FD_ZERO(&urgent);
    FD_SET(fd, &urgent);
    FD_SET(fd, &readSet);
    timeval noWait{0, 0};
    if (::select(fd + 1, &readSet, nullptr, &urgent, &noWait) < 1) return {false, false};
    return {FD_ISSET(fd, &readSet) != 0, FD_ISSET(fd, &urgent) != 0};
}

ssize_t TTelnetConn::peek(std::span<char> buffer) const
{
    return ::recv(fd, buffer.data(), buffer.size(), MSG_PEEK | MSG_DONTWAIT);
}

/// @return how many bytes got out
std::size_t TTelnetConn::sendBytes(std::span<const Byte> bytes) const
{
    if (bytes.empty()) return 0;
    return static_cast<std::size_t>(
        std::max<ssize_t>(::send(fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL), 0));
}

void TTelnetConn::setLowWaterMark(int bytes)
{
    if (lowWaterMark_ == bytes) return;
    if (::setsockopt(fd, SOL_SOCKET, SO_RCVLOWAT, &bytes, sizeof bytes) == 0) lowWaterMark_ = bytes;
}

/// Input that cannot be used yet stays in the socket, which is therefore readable, and would wake
/// the service loop again and again. Has the socket count as readable only when more has arrived
/// than is waiting now.
/// @return false: that cannot be had, so that somebody has to look after a time
bool TTelnetConn::waitForMore(std::size_t waiting)
{
    const int mark = static_cast<int>(waiting) + 1;
    // It has been woken at this mark and found no more: the input ends behind what waits. Or no
    // more fits into the buffer.
    if (mark == lowWaterMark_ || waiting >= RX_BYTES) return false;
    setLowWaterMark(mark);
    return mark == lowWaterMark_;
}

/// Lets an exchange of options take what has arrived, and sends what it answers.
template <class Exchange> Verdict TTelnetConn::takeTurn(Exchange& exchange)
{
    const bool isWoken = ready().input;
    std::array<char, RX_BYTES> scratch;
    const ssize_t received = peek(scratch);
    if (received < 0 && errno != EAGAIN) return Verdict::drop;
    const auto waiting = static_cast<std::size_t>(std::max<ssize_t>(received, 0));
    const telnet::Turn turn =
        exchange.take(std::span(reinterpret_cast<const Byte*>(scratch.data()), waiting), instantNow());
    due = exchange.due();
    const bool isUsed = turn.used > 0;
    if (isUsed && ::recv(fd, scratch.data(), turn.used, MSG_DONTWAIT) != static_cast<ssize_t>(turn.used))
        return Verdict::drop;
    const Verdict verdict = turn.verdictWhen(sendBytes(turn.answer()));
    const bool isOnward = isUsed || verdict != Verdict::goOn;
    if (isOnward) setLowWaterMark(1); // what is left is looked at anew
    wantsInput = isOnward || (waiting > 0 && waitForMore(waiting)) || !isWoken;
    return verdict;
}

int TTelnetConn::negotiateOptions()
{
    if (!negotiation_) negotiation_.emplace(instantNow());
    const Verdict verdict = takeTurn(*negotiation_);
    if (verdict == Verdict::goOn) return 2;
    negotiation_.reset();
    if (verdict == Verdict::drop) return 1;
    lineMode = verdict == Verdict::lineMode ? 1 : 0;
    if (lineMode == 0) setEcho(1);
    keepAlive();
    due = AT_ONCE; // the client is to be greeted
    return 0;
}

void TTelnetConn::setEcho(int on)
{
    if (lineMode == 0) {
        serverEcho = on != 0 ? 1 : 0;
        return;
    }
    echoSwitch_.emplace(on != 0, instantNow());
    // If this fails the client does not answer, and the exchange ends by time.
    (void)sendBytes(echoSwitch_->request());
    settling = true;
    wantsInput = true;
    due = echoSwitch_->due();
}

void TTelnetConn::goOnSettling()
{
    if (takeTurn(*echoSwitch_) == Verdict::goOn) return;
    echoSwitch_.reset();
    settling = false;
    wantsInput = true;
    due = AT_ONCE; // whoever waited for the end of the exchange goes on
}

/// Sends back what has not been echoed yet of the input that stays in the socket.
void TTelnetConn::echo(std::span<const char> received)
{
    const auto done = static_cast<std::size_t>(echoPos);
    if (serverEcho == 0 || done >= received.size()) return;
    const std::span<const char> fresh = received.subspan(done);
    // A client that does not read goes without its echo.
    (void)::send(fd, fresh.data(), fresh.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    echoPos = static_cast<std::int32_t>(received.size());
}

int TTelnetConn::readCmd()
{
    rxLen = 0;
    wantsInput = true;
    due = end();
    if (echoSwitch_) {
        goOnSettling();
        return 0;
    }
    const auto [input, urgent] = ready();
    std::array<char, RX_BYTES> scratch;
    bool isEnded = false;
    if (urgent) {
        const ssize_t dropped = ::recv(fd, scratch.data(), scratch.size(), MSG_OOB | MSG_DONTWAIT);
        if (dropped > 0) return 0;
        // ENOTCONN: the connection is gone, and the urgent byte can no longer be taken.
        isEnded = dropped < 0 && errno == ENOTCONN;
    }
    if (!input) return 0;
    const ssize_t received = peek(scratch);
    if (received < 0) return 0;
    if (received == 0) return -1;
    const int count = takeInput(std::span(scratch).first(static_cast<std::size_t>(received)));
    return count == 0 && isEnded ? -1 : count;
}

/// @param input  what waits in the socket, at least a byte
/// @return number of lines
int TTelnetConn::takeInput(std::span<const char> input)
{
    rxLen = static_cast<std::int32_t>(input.size());
    echo(input);
    if (std::ranges::find_if(input, isLineEnd) == input.end()) return keepHalfLine(input.size());
    if (::recv(fd, rxBuf.data(), input.size(), MSG_DONTWAIT) != static_cast<ssize_t>(input.size())) return 0;
    rxBuf[input.size()] = '\0';
    echoPos = 0;
    setLowWaterMark(1);
    const int count = cutLines(std::span(rxBuf).first(input.size()), false, cmds);
    if (count > 0) keepAlive();
    due = end();
    return count;
}

/// @return 0; -1 when the line's end will never come, because the client has reset the connection
int TTelnetConn::keepHalfLine(std::size_t waiting)
{
    if (waitForMore(waiting)) return 0;
    if (isReset()) return -1;
    rest();
    return 0;
}

/// Asks for the state of the connection, because recv(2) may not tell: it gives what waits first,
/// and then an error only if no write has had it before.
bool TTelnetConn::isReset() const
{
    tcp_info info{};
    socklen_t length = sizeof info;
    return ::getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &length) == 0 && info.tcpi_state == TCP_CLOSE;
}

int TTelnetConn::sendText(const char* text, std::size_t length)
{
    // Without MSG_NOSIGNAL, unlike every other send here (deliberate): the daemon's handler takes
    // the SIGPIPE.
    if (::send(fd, text, length, MSG_DONTWAIT) < 0) return 1;
    keepAlive();
    return 0;
}

int TTelnetConn::writeText(const char* text)
{
    return sendText(text, std::strlen(text));
}

int TTelnetConn::write(TOrbAttachmentMsg* msg)
{
    if (sendText(msg->text, textLength(*msg)) == 0) return 0;
    logMessage(connection_log::telnetWriteFailed);
    return 1;
}
