#include "connections/xcp_con.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <span>
#include <sys/socket.h>

#include "connections/connection_log.h"
#include "connections/line_cutter.h"

/// Begins the next frame with what was taken in beyond the last one.
void TXCPCon::dropFrame()
{
    rxLen -= frameLen_;
    std::memmove(rxBuf.data(), &rxBuf[static_cast<std::size_t>(frameLen_)], static_cast<std::size_t>(rxLen));
    frameLen_ = 0;
}

/// Takes in what has arrived until there are so many bytes of the frame; by one call also what is
/// behind them, if the frame is as long as the one before. Never peeks, because that would not get
/// past an urgent byte (unix(7)): it ends a read, and the next one drops it.
/// @return false: the peer has closed
bool TXCPCon::takeIn(std::int32_t bytes)
{
    const std::int32_t most = std::max(bytes, lastFrameLen_);
    while (rxLen < bytes) {
        const ssize_t received =
            ::recv(fd, &rxBuf[static_cast<std::size_t>(rxLen)], static_cast<std::size_t>(most - rxLen), MSG_DONTWAIT);
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
    dropFrame();
    if (frameEnd_ != NEVER && frameEnd_ <= instantNow()) return -1;
    if (!takeIn(HEADER_BYTES)) return -1;
    if (rxLen == 0) return 0;
    if (rxLen < HEADER_BYTES) {
        if (frameEnd_ == NEVER) frameEnd_ = instantNow() + FRAME_TIME;
        due = frameEnd_;
        return 0;
    }
    frameEnd_ = NEVER;
    const int count = cutFrame();
    if (rxLen > frameLen_) due = AT_ONCE; // for the next frame, of which the socket may tell nothing any more
    return count;
}

/// Takes the payload behind a whole header, and cuts it.
int TXCPCon::cutFrame()
{
    std::uint32_t tag;
    std::int32_t payloadBytes;
    std::memcpy(&tag, &rxBuf[offsetof(TOrbAttachmentMsg, tag)], sizeof tag); // a frame's header is that of a record
    std::memcpy(&payloadBytes, &rxBuf[offsetof(TOrbAttachmentMsg, len)], sizeof payloadBytes);
    frameLen_ = HEADER_BYTES;
    if (payloadBytes < 0 || payloadBytes > MAX_PAYLOAD_BYTES) {
        logMessage(connection_log::xcpLengthOutOfRange);
        return -1;
    }
    echoFlag = 0;
    if (payloadBytes == 0) return 0;

    lastFrameLen_ = HEADER_BYTES + payloadBytes;
    (void)takeIn(lastFrameLen_); // a peer that has closed shows at the next look
    frameLen_ = std::min(rxLen, lastFrameLen_);
    // A frame cut short ends where its bytes end, not in what an earlier one has left, and the last
    // line with the payload. There the next frame may begin, with a word that nobody looks at.
    rxBuf[static_cast<std::size_t>(frameLen_)] = '\0';
    const auto declared = static_cast<std::size_t>(payloadBytes);
    rxBuf[HEADER_BYTES + declared] = '\0';
    // Over the declared length, whether or not all of it has arrived (deliberate).
    const int count = cutFrameLines(std::span(rxBuf).subspan(HEADER_BYTES, declared), tag, cmds);
    if (count > 0) keepAlive();
    return count;
}

std::string_view TXCPCon::toBeSent(TOrbAttachmentMsg& msg) const
{
    const std::size_t textBytes = textLength(msg) + 1;
    msg.text[textBytes - 1] = '\0';
    msg.len = static_cast<std::int32_t>(textBytes);
    msg.tag &= 0xFFFFU;
    return {reinterpret_cast<const char*>(&msg), MSG_HEADER_BYTES + textBytes};
}

int TXCPCon::send(TOrbAttachmentMsg& msg)
{
    const std::string_view frame = toBeSent(msg);
    // Without MSG_NOSIGNAL (deliberate): the daemon's handler takes the SIGPIPE.
    if (::send(fd, frame.data(), frame.size(), MSG_DONTWAIT) >= 0) return 0;
    logMessage(connection_log::xcpWriteFailed);
    return 1;
}
