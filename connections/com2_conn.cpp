#include "connections/com2_conn.h"

#include <span>
#include <termios.h>
#include <unistd.h>

#include "connections/line_cutter.h"
#include "connections/serial_line.h"

namespace {

// A line that has hung up is readable at any time and gives nothing. A single Ctrl-D looks the same once.
constexpr int EMPTY_READS_BEFORE_REST = 3;

} // namespace

TCom2Conn::TCom2Conn(std::uint32_t portType, std::uint32_t id) : TPortConn(portType, id)
{
    loginState = LOGIN_DONE;
}

int TCom2Conn::readCmd()
{
    rxLen = 0;
    if (fd < 0 || fd >= FD_SETSIZE) return 0;
    FD_SET(fd, &readSet);
    timeval noWait{0, 0};
    if (::select(fd + 1, &readSet, nullptr, nullptr, &noWait) < 1) return 0;
    if (muteExpired() != 0) return readLines();
    readAndDiscard();
    return 0;
}

/// Keeps a line that yields nothing from waking the service loop again and again.
void TCom2Conn::noteRead()
{
    if (rxLen > 0) {
        emptyReads_ = 0;
        restTimer = TOrbHRTimeOut{};
    } else if (++emptyReads_ >= EMPTY_READS_BEFORE_REST) {
        emptyReads_ = EMPTY_READS_BEFORE_REST;
        restTimer.setTimeOut(REST_TIME);
    }
}

int TCom2Conn::readLines()
{
    rxLen = static_cast<std::int32_t>(::read(fd, rxBuf.data(), static_cast<std::size_t>(rxBufSize)));
    noteRead();
    if (rxLen <= 0) return 0;
    return cutLines(std::span(rxBuf).first(static_cast<std::size_t>(rxLen)), false, cmds);
}

void TCom2Conn::readAndDiscard()
{
    (void)setCanonical(0); // so that half a line is discarded too; a line that refuses is read as it is
    rxLen = static_cast<std::int32_t>(::read(fd, rxBuf.data(), static_cast<std::size_t>(rxBufSize)));
    rxBuf[rxLen > 0 ? static_cast<std::size_t>(rxLen) : 0] = '\0';
    noteRead();
    (void)setCanonical(1);
}

int TCom2Conn::write(TOrbAttachmentMsg* msg)
{
    return fd >= 0 && writeToLine(fd, msg->text, textLength(*msg)) ? 0 : 1;
}

int TCom2Conn::startMute()
{
    const std::scoped_lock lock(muteLock);
    muteTimer.setTimeOut(MUTE_TIME);
    return 0;
}

int TCom2Conn::muteExpired()
{
    const std::scoped_lock lock(muteLock);
    return muteTimer.hasTimedOut() ? 1 : 0;
}

int TCom2Conn::setCanonical(int on)
{
    termios line{};
    if (::tcgetattr(fd, &line) != 0) return 1;
    if (on != 0)
        line.c_lflag |= static_cast<tcflag_t>(ICANON);
    else
        line.c_lflag &= ~static_cast<tcflag_t>(ICANON);
    return ::tcsetattr(fd, TCSANOW, &line) != 0 ? 1 : 0;
}
