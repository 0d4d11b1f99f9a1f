#include "connections/xcp_con.h"

#include <cstddef>
#include <cstring>
#include <span>
#include <sys/socket.h>

#include "connections/connection_log.h"
#include "connections/line_cutter.h"

/// Takes in what has arrived until there are so many bytes of the frame. Never peeks, because that
/// would not get past an urgent byte (unix(7)): it ends a read, and the next one drops it.
/// @return false: the peer has closed
bool TXCPCon::takeIn(std::int32_t bytes)
{
    while (rxLen < bytes) {
        const ssize_t received =
            ::recv(fd, &rxBuf[static_cast<std::size_t>(rxLen)], static_cast<std::size_t>(bytes - rxLen), MSG_DONTWAIT);
        if (received <= 0) return received < 0;
        rxLen += static_cast<std::int32_t>(received);
    }
    return true;
}

int TXCPCon::readCmd()
{
    echoFlag = 1;
    wantsInput = true;
    due = NEVER;
    if (rxLen >= HEADER_BYTES) rxLen = 0; // less is the header that has begun
    const bool begins = rxLen == 0;
    if (!begins && frameEnd_ <= instantNow()) return -1;
    if (!takeIn(HEADER_BYTES)) return -1;
    if (rxLen == 0) return 0;
    if (rxLen == HEADER_BYTES) return cutPayload();
    if (begins) frameEnd_ = instantNow() + FRAME_TIME;
    due = frameEnd_;
    return 0;
}

/// Takes the payload behind a whole header, and cuts it.
int TXCPCon::cutPayload()
{
    std::uint32_t tag;
    std::int32_t payloadBytes;
    std::memcpy(&tag, &rxBuf[offsetof(TOrbAttachmentMsg, tag)], sizeof tag); // a frame's header is that of a record
    std::memcpy(&payloadBytes, &rxBuf[offsetof(TOrbAttachmentMsg, len)], sizeof payloadBytes);
    if (payloadBytes < 0 || payloadBytes > MAX_PAYLOAD_BYTES) {
        logMessage(connection_log::xcpLengthOutOfRange);
        return -1;
    }
    echoFlag = 0;
    if (payloadBytes == 0) return 0;

    // A peer that has closed is found out by the next call.
    (void)takeIn(HEADER_BYTES + payloadBytes);
    // One NUL ends a frame that was cut short, which would run on into an earlier one's rest; the
    // other ends the last line of a whole one.
    rxBuf[static_cast<std::size_t>(rxLen)] = '\0';
    const auto declared = static_cast<std::size_t>(payloadBytes);
    rxBuf[HEADER_BYTES + declared] = '\0';
    // Over the declared length, whether or not all of it has arrived (deliberate).
    const int count = cutFrameLines(std::span(rxBuf).subspan(HEADER_BYTES, declared), tag, cmds);
    if (count > 0) keepAlive();
    return count;
}

int TXCPCon::write(TOrbAttachmentMsg* msg)
{
    const std::size_t textBytes = textLength(*msg) + 1;
    msg->text[textBytes - 1] = '\0';
    msg->len = static_cast<std::int32_t>(textBytes);
    msg->tag &= 0xFFFFU;
    // Without MSG_NOSIGNAL (deliberate): the daemon's handler takes the SIGPIPE.
    if (::send(fd, msg, MSG_HEADER_BYTES + textBytes, MSG_DONTWAIT) >= 0) return 0;
    logMessage(connection_log::xcpWriteFailed);
    return 1;
}
