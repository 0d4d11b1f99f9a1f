#include "connections/com2_conn.h"

#include <cerrno>
#include <span>
#include <termios.h>
#include <unistd.h>

#include "common/process_copy.h"
#include "connections/line_cutter.h"

namespace {

// A line that has hung up is readable all the time, and every read gives 0 bytes. A Ctrl-D that is
// typed gives one such read: only several in a row mean that the line would wake the service loop
// without end.
constexpr int EMPTY_READS_BEFORE_REST = 3;

} // namespace

TCom2Conn::TCom2Conn(std::uint32_t portType, std::uint32_t id) : TPortConn(portType, id)
{
    loginState = LOGIN_DONE;
    output = &output_;
}

TCom2Conn::~TCom2Conn()
{
    // The next connection must not take for a command what has come while the line was muted.
    if (muteEnd_ != NEVER && !g_isCopy) (void)::tcflush(fd, TCIFLUSH);
}

int TCom2Conn::readCmd()
{
    rxLen = 0;
    wantsInput = true;
    due = NEVER;
    const bool isMute = throwsAway();
    if (fd < 0 || fd >= FD_SETSIZE) return 0;
    if (!isMute) return readLines();
    readAndDiscard();
    return 0;
}

/// @return true while the line is muted, and at the first look after that: what is there then has
///         come while it was muted
bool TCom2Conn::throwsAway()
{
    const std::scoped_lock lock(muteLock);
    if (muteEnd_ == NEVER) return false;
    if (muteTimer.hasTimedOut())
        muteEnd_ = NEVER;
    else
        due = muteEnd_;
    return true;
}

int TCom2Conn::readLines()
{
    const ssize_t received = ::read(fd, rxBuf.data(), static_cast<std::size_t>(rxBufSize));
    if (received > 0) {
        emptyReads_ = 0;
        rxLen = static_cast<std::int32_t>(received);
        const int count = cutLines(std::span(rxBuf).first(static_cast<std::size_t>(rxLen)), false, cmds);
        if (count > 0) noteActivity();
        return count;
    }
    const bool nothingThere = received < 0 && (errno == EAGAIN || errno == EINTR);
    if (!nothingThere && emptyReads_ < EMPTY_READS_BEFORE_REST) ++emptyReads_;
    if (emptyReads_ >= EMPTY_READS_BEFORE_REST) rest();
    return 0;
}

void TCom2Conn::readAndDiscard()
{
    // Canonical input would hold back half a line. A line that refuses the switch is read as it is.
    (void)setCanonical(0);
    const ssize_t received = ::read(fd, rxBuf.data(), static_cast<std::size_t>(rxBufSize));
    rxLen = received > 0 ? static_cast<std::int32_t>(received) : 0;
    rxBuf[static_cast<std::size_t>(rxLen)] = '\0';
    (void)setCanonical(1);
    // Throws the rest away, and what came during the switch, which would look like a whole line.
    (void)::tcflush(fd, TCIFLUSH);
}

int TCom2Conn::write(TOrbAttachmentMsg* msg)
{
    return output_.write(fd, {msg->text, textLength(*msg)}) == LineOutput::Sent::refused ? 1 : 0;
}

int TCom2Conn::startMute()
{
    const std::scoped_lock lock(muteLock);
    muteTimer.setTimeOut(MUTE_TIME);
    // Taken after the timer was set, so that the timer is over when this moment comes.
    muteEnd_ = instantNow() + std::chrono::seconds(MUTE_TIME.tv_sec);
    due = muteEnd_;
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
