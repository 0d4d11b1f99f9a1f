#include "connections/port_conn.h"

#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

#include "common/process_copy.h"
#include "connections/line_output.h"

namespace {

Instant fromNow(const timeval& span)
{
    return instantNow() + std::chrono::seconds(span.tv_sec);
}

} // namespace

TPortConn::TPortConn(std::uint32_t portType, std::uint32_t id)
    : connId(id), portId(portType), loginEnd_(fromNow(LOGIN_TIME)), idleEnd_(fromNow(IDLE_TIME))
{
    FD_ZERO(&readSet);
}

void TPortConn::keepAlive()
{
    idleTimer.setTimeOut(IDLE_TIME);
    noteActivity();
    idleEnd_ = lastActive_ + std::chrono::seconds(IDLE_TIME.tv_sec);
}

Instant TPortConn::end() const
{
    return loginState == LOGIN_DONE ? idleEnd_ : loginEnd_;
}

void TPortConn::addTo(WaitSet& waits)
{
    waits.count(fd);
    const bool muted = isSerialLine() != 0 && muteExpired() == 0;
    if (wantsInput && !isHeld() && !muted) waits.addInput(fd);
    if (!progress.waits()) waits.addDue(due);
    if (output == nullptr) return;
    waits.addOutput(output->waitsFor());
    waits.addDue(output->due());
}

bool TPortConn::isDue(const WaitSet& waits) const
{
    if (login.owes == LoginOwes::verdict && login.check->isOver()) return true;
    return waits.isDue(due) || (wantsInput && waits.hasInput(fd));
}

void TPortConn::rest()
{
    wantsInput = false;
    due = instantNow() + REST_TIME;
}

std::size_t TPortConn::textLength(const TOrbAttachmentMsg& msg)
{
    return ::strnlen(msg.text, MSG_TEXT_BYTES - 1);
}

void TPortConn::closeSocket() const
{
    if (fd <= 0) return; // descriptor 0 stays open (deliberate); no connection gets it, as standard input has it
    // The service loop may be waiting for the socket, or the child of a reset may have it: close()
    // alone would tell nobody.
    if (!g_isCopy) (void)::shutdown(fd, SHUT_RDWR); // a peer that has gone needs to be told nothing
    (void)::close(fd);                              // nothing is left to do for a descriptor that fails to close
}
