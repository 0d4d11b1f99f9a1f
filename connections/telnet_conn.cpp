#include "connections/telnet_conn.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "connections/connection_log.h"
#include "connections/line_cutter.h"
#include "connections/waiting.h"
#include "connections/white_space.h"

using telnet::Byte;

namespace {

constexpr timeval COMMAND_TIME{1, 0};     // for each step towards a whole command
constexpr timeval NEGOTIATION_TIME{5, 0}; // real clients are done within 0.1 s
constexpr timeval ECHO_SWITCH_TIME{2, 0};
constexpr int LOOK_AGAIN_MS = 10; // while a command is awaited; also how late a time-out may be

} // namespace

TTelnetConn::TTelnetConn(std::uint32_t portType, std::uint32_t id) : TPortConn(portType, id) {}

TTelnetConn::~TTelnetConn()
{
    closeSocket();
}

ssize_t TTelnetConn::peek(char* buffer)
{
    return ::recv(fd, buffer, RX_BYTES, MSG_PEEK | MSG_DONTWAIT);
}

std::span<const Byte> TTelnetConn::command() const
{
    return {reinterpret_cast<const Byte*>(rxBuf.data()), static_cast<std::size_t>(rxLen)};
}

bool TTelnetConn::sendBytes(std::span<const Byte> bytes)
{
    return ::send(fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

/// Reads one telnet command into rxBuf, its length into rxLen. Sleeps until there is one.
/// @param bound  ends the wait whatever the client sends
TTelnetConn::Read TTelnetConn::readTelnetCmd(const TOrbHRTimeOut& bound)
{
    using telnet::Front;
    rxLen = 0;
    TOrbHRTimeOut step(COMMAND_TIME);
    Front reached = Front::nothing;
    while (!step.hasTimedOut() && !bound.hasTimedOut() && !g_endWaits) {
        const ssize_t received = peek(rxBuf.data());
        if (received < 0 && errno != EAGAIN) return Read::socketError;
        const auto waiting = static_cast<std::size_t>(std::max<ssize_t>(received, 0));
        const auto [front, length] = telnet::scan({reinterpret_cast<const Byte*>(rxBuf.data()), waiting});
        if (front == Front::data) return Read::data;
        if (front == Front::command) {
            if (::recv(fd, rxBuf.data(), length, MSG_DONTWAIT) != static_cast<ssize_t>(length))
                return Read::socketError;
            rxLen = static_cast<std::int32_t>(length);
            return Read::command;
        }
        if (front != reached) step.setTimeOut(COMMAND_TIME);
        reached = front;
        // Input that is there already, or its end, would wake poll() again and again.
        pollfd more{received < 0 ? fd : -1, POLLIN, 0};
        (void)::poll(&more, 1, LOOK_AGAIN_MS); // whatever ended it, the next look tells
    }
    return Read::timeOut;
}

/// No LINEMODE: a plain byte stream.
void TTelnetConn::startPlainMode()
{
    setEcho(1);
    idleTimer.setTimeOut(IDLE_TIME);
}

int TTelnetConn::negotiateOptions()
{
    const TOrbHRTimeOut bound(NEGOTIATION_TIME);
    const Read first = readTelnetCmd(bound);
    if (first == Read::socketError) return 1;
    if (first != Read::command) {
        startPlainMode();
        return 0;
    }
    if (!sendBytes(telnet::offerOptions)) return 1;
    do {
        if (rxLen > 3) {
            if (telnet::isLinemodeSubNeg(command()) && processSubNegLm() != 0) return 1;
            break;
        }
        processOptStat();
    } while (readTelnetCmd(bound) == Read::command);

    if (lineMode == 0)
        startPlainMode();
    else
        idleTimer.setTimeOut(IDLE_TIME);
    return 0;
}

/// Handles the 3-byte command in rxBuf: notes LINEMODE, refuses what is not known.
void TTelnetConn::processOptStat()
{
    const Byte verb = command()[1];
    const Byte option = command()[2];
    if (option == telnet::ECHO_OPTION || option == telnet::SUPPRESS_GO_AHEAD) return;
    if (option == telnet::LINEMODE) {
        if (verb == telnet::WILL) lineMode = 1;
        return;
    }
    if (verb != telnet::WILL && verb != telnet::DO) return;
    // WONT, not DONT, for a WILL too (deliberate).
    (void)sendBytes(
        std::array{telnet::IAC, telnet::WONT, option}); // a client that misses it asks again, or goes without
}

/// Makes the client edit lines and send them at CR, and reads its answers, beginning with what is in rxBuf.
/// @return 0 done, 1 send failure
int TTelnetConn::processSubNegLm()
{
    const TOrbHRTimeOut bound(NEGOTIATION_TIME);
    // Both in one segment: a second small one would wait for the first to be acknowledged, and the service thread with it.
    std::array<Byte, telnet::modeEdit.size() + telnet::slcForward.size()> both;
    std::ranges::copy(telnet::slcForward, std::ranges::copy(telnet::modeEdit, both.begin()).out);
    if (!sendBytes(both)) return 1;

    telnet::LinemodeAnswers answers;
    do {
        if (rxLen == 3)
            processOptStat();
        else if (telnet::isLinemodeSubNeg(command()))
            answers.take(command());
    } while (!answers.complete() && readTelnetCmd(bound) == Read::command);
    return 0;
}

void TTelnetConn::setEcho(int on)
{
    if (lineMode == 0) {
        serverEcho = on != 0 ? 1 : 0;
        return;
    }
    const TOrbHRTimeOut bound(ECHO_SWITCH_TIME);
    const std::array expected{telnet::IAC, on != 0 ? telnet::DONT : telnet::DO, telnet::ECHO_OPTION};
    (void)sendBytes(on != 0 ? telnet::echoWont : telnet::echoWill); // the wait is the same when it fails
    while (readTelnetCmd(bound) == Read::command)
        if (std::ranges::equal(command(), expected)) return;
}

/// Sends back what has not been echoed yet of the input that stays in the socket.
void TTelnetConn::echo(std::span<const char> received)
{
    const auto done = static_cast<std::size_t>(echoPos);
    if (serverEcho == 0 || done >= received.size()) return;
    const std::span<const char> fresh = received.subspan(done);
    (void)::send(fd, fresh.data(), fresh.size(),
                 MSG_DONTWAIT | MSG_NOSIGNAL); // a client that does not read goes without
    echoPos = static_cast<std::int32_t>(received.size());
}

/// A line without its end stays in the socket, which is therefore readable at any time. Keeps the service thread asleep until
/// more arrives, or, where the socket cannot tell, for a while.
void TTelnetConn::sleepUntilMore(std::int32_t waiting)
{
    const int mark = waiting + 1;
    const bool marked = mark != lowWaterMark_ && waiting < RX_BYTES &&
                        ::setsockopt(fd, SOL_SOCKET, SO_RCVLOWAT, &mark, sizeof mark) == 0;
    if (marked)
        lowWaterMark_ = mark;
    else
        restTimer.setTimeOut(REST_TIME); // the line is longer than the buffer, or the client has hung up behind it
}

int TTelnetConn::readCmd()
{
    rxLen = 0;
    if (fd < 0 || fd >= FD_SETSIZE) return 0;
    fd_set urgent;
    FD_ZERO(&urgent);
    FD_SET(fd, &urgent);
    FD_SET(fd, &readSet);
    timeval noWait{0, 0};
    if (::select(fd + 1, &readSet, nullptr, &urgent, &noWait) < 1) return 0;

    std::array<char, RX_BYTES> scratch;
    if (FD_ISSET(fd, &urgent)) {
        const ssize_t dropped = ::recv(fd, scratch.data(), scratch.size(), MSG_OOB | MSG_DONTWAIT);
        if (dropped > 0 || (dropped < 0 && errno != EAGAIN)) return 0;
    }
    if (!FD_ISSET(fd, &readSet)) return 0;

    const ssize_t received = peek(scratch.data());
    if (received < 0) return 0;
    if (received == 0) return -1;
    rxLen = static_cast<std::int32_t>(received);
    const std::span<const char> input = std::span(scratch).first(static_cast<std::size_t>(received));
    echo(input);
    if (std::ranges::find_if(input, isLineEnd) == input.end()) {
        sleepUntilMore(rxLen);
        return 0;
    }
    if (::recv(fd, rxBuf.data(), input.size(), MSG_DONTWAIT) != received) return 0;
    rxBuf[input.size()] = '\0';
    echoPos = 0;
    if (lowWaterMark_ != 1) {
        lowWaterMark_ = 1;
        (void)::setsockopt(fd, SOL_SOCKET, SO_RCVLOWAT, &lowWaterMark_,
                           sizeof lowWaterMark_); // cannot fail once it has worked
    }
    const int count = cutLines(std::span(rxBuf).first(input.size()), false, cmds);
    if (count > 0) idleTimer.setTimeOut(IDLE_TIME);
    return count;
}

int TTelnetConn::sendText(const char* text, std::size_t length)
{
    if (::send(fd, text, length, MSG_DONTWAIT) < 0) return 1;
    idleTimer.setTimeOut(IDLE_TIME);
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
