#include "connections/xcp_con.h"

#include <cstddef>
#include <cstring>
#include <span>
#include <sys/socket.h>
#include <unistd.h>

#include "connections/connection_log.h"
#include "connections/line_cutter.h"
#include "connections/waiting.h"
#include "framework/sleep.h"

namespace {

// Between two looks at a short header. Chosen: the first lets a header in two pieces through without delay, the second is
// for a wait that only a stop can end.
constexpr int LOOK_AGAIN_MS = 1;
constexpr int LOOK_FOR_STOP_MS = 50;

} // namespace

TXCPCon::TXCPCon(std::uint32_t portType, std::uint32_t id) : TPortConn(portType, id)
{
    loginState = LOGIN_DONE;
}

TXCPCon::~TXCPCon()
{
    closeSocket();
}

ssize_t TXCPCon::peek()
{
    const ssize_t received = ::recv(fd, rxBuf.data(), RX_BYTES, MSG_PEEK | MSG_DONTWAIT);
    rxLen = received > 0 ? static_cast<std::int32_t>(received) : 0;
    rxBuf[static_cast<std::size_t>(rxLen)] = '\0'; // a frame cut short ends here, not in what an earlier one has left
    return received;
}

/// Looks until the header is whole before the frame time is over.
/// @return false when it gives up
bool TXCPCon::waitForHeader()
{
    const TOrbHRTimeOut frameTimer(FRAME_TIME);
    while (!g_endUnboundedWaits) {
        const bool late = frameTimer.hasTimedOut();
#ifdef TESS_BOUNDED_WAITS
        if (late) return false;
#endif
        // A header that becomes whole too late is not taken (deliberate): only a stop ends that wait.
        Sleep(late ? LOOK_FOR_STOP_MS : LOOK_AGAIN_MS);
        (void)peek(); // what counts is how many bytes are there now
        if (!late && rxLen >= HEADER_BYTES) return true;
    }
    return false;
}

int TXCPCon::readCmd()
{
    echoFlag = 1;
    const ssize_t waiting = peek();
    if (waiting == 0) return -1;
    if (waiting < 0) return 0;
    if (rxLen < HEADER_BYTES && !waitForHeader()) return -1;

    std::uint32_t tag;
    std::int32_t payloadBytes;
    std::memcpy(&tag, &rxBuf[offsetof(TOrbAttachmentMsg, tag)], sizeof tag); // a frame's header is that of a record
    std::memcpy(&payloadBytes, &rxBuf[offsetof(TOrbAttachmentMsg, len)], sizeof payloadBytes);
    if (payloadBytes < 0 || payloadBytes > MAX_PAYLOAD_BYTES) {
        logMessage(connection_log::xcpLengthOutOfRange);
        return -1;
    }

    const std::size_t frameBytes = static_cast<std::size_t>(HEADER_BYTES + payloadBytes);
    rxLen = static_cast<std::int32_t>(::recv(fd, rxBuf.data(), frameBytes, MSG_DONTWAIT));
    rxBuf[frameBytes] = '\0'; // the last line ends with the payload, whatever the next frame begins with
    echoFlag = 0;
    if (payloadBytes == 0) return 0;
    // Over the declared length, whether or not all of it has arrived (deliberate).
    const int count =
        cutFrameLines(std::span(rxBuf).subspan(HEADER_BYTES, static_cast<std::size_t>(payloadBytes)), tag, cmds);
    if (count > 0) idleTimer.setTimeOut(IDLE_TIME);
    return count;
}

int TXCPCon::write(TOrbAttachmentMsg* msg)
{
    const std::size_t textBytes = textLength(*msg) + 1;
    msg->text[textBytes - 1] = '\0';
    msg->len = static_cast<std::int32_t>(textBytes);
    msg->tag &= 0xFFFFU;
    if (::send(fd, msg, MSG_HEADER_BYTES + textBytes, MSG_DONTWAIT) >= 0) return 0;
    logMessage(connection_log::xcpWriteFailed);
    return 1;
}
