#include "connections/socket_ipc_conn.h"

#include <cstring>
#include <span>
#include <sys/socket.h>

#include "connections/connection_log.h"
#include "connections/line_cutter.h"

int TSocketIPCConn::readCmd()
{
    rxLen = 0;
    echoFlag = 0;
    wantsInput = true;
    due = NEVER;
    // One call polls and reads: whatever is there is taken whole, wanted or not. An urgent byte is
    // dropped by it (unix(7)).
    const ssize_t received = ::recv(fd, rxBuf.data(), RX_BYTES, MSG_DONTWAIT);
    if (received < 0) return 0;
    if (received == 0) return -1;
    rxLen = static_cast<std::int32_t>(received);
    rxBuf[static_cast<std::size_t>(rxLen)] = '\0';
    // The test is the inverse of its message, deliberately: a full buffer without a LF is a
    // command.
    if (rxLen == RX_BYTES && std::strrchr(rxBuf.data(), '\n') != nullptr) {
        logMessage(connection_log::fullBuffer);
        return 0;
    }
    const int count = cutLines(std::span(rxBuf).first(static_cast<std::size_t>(rxLen)), true, cmds);
    if (count > 0) keepAlive();
    return count;
}

int TSocketIPCConn::send(TOrbAttachmentMsg& msg)
{
    const std::string_view text = toBeSent(msg);
    return ::send(fd, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0 ? 1 : 0;
}

std::string_view TSocketIPCConn::toBeSent(TOrbAttachmentMsg& msg) const
{
    return {msg.text, textLength(msg)};
}
