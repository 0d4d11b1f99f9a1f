#include "connections/local_conn.h"

#include <algorithm>
#include <array>
#include <memory>
#include <sys/socket.h>
#include <sys/uio.h>

constinit std::mutex LocalConn::outputLock;

LocalConn::LocalConn(std::uint32_t portType, std::uint32_t id) : TPortConn(portType, id)
{
    loginState = LOGIN_DONE;
    local = this;
}

LocalConn::~LocalConn()
{
    closeSocket();
}

void LocalConn::startInForkedChild()
{
    std::construct_at(&outputLock);
}

int LocalConn::write(TOrbAttachmentMsg* msg)
{
    const std::scoped_lock lock(outputLock);
    return send(*msg);
}

void LocalConn::writeTogether(std::span<TOrbAttachmentMsg* const> msgs)
{
    while (msgs.size() > 1) {
        const auto next = msgs.first(std::min(msgs.size(), MOST_TOGETHER));
        sendTogether(next);
        msgs = msgs.subspan(next.size());
    }
    if (!msgs.empty()) (void)send(*msgs.front()); // it has logged a failure
}

void LocalConn::sendTogether(std::span<TOrbAttachmentMsg* const> msgs)
{
    std::array<iovec, MOST_TOGETHER> parts;
    msghdr together{};
    together.msg_iov = parts.data();
    for (TOrbAttachmentMsg* const msg : msgs) {
        const std::string_view bytes = toBeSent(*msg);
        parts[together.msg_iovlen++] = {const_cast<char*>(bytes.data()), bytes.size()}; // they are only read
    }
    ssize_t sent = ::sendmsg(fd, &together, MSG_DONTWAIT | MSG_NOSIGNAL);
    // What has not been begun is sent by itself, and tells what is wrong; a piece loses its rest.
    for (std::size_t i = 0; i < msgs.size(); ++i) {
        if (sent <= 0 && parts[i].iov_len > 0) (void)send(*msgs[i]);
        sent -= static_cast<ssize_t>(parts[i].iov_len);
    }
}
