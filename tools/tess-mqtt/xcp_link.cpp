#include "tools/tess-mqtt/xcp_link.h"

#include <array>
#include <cerrno>
#include <sys/socket.h>
#include <sys/un.h>

#include "framework/fixed_text.h"
#include "framework/orb_attachment_msg.h"
#include "framework/tess_messages.h"

bool XcpLink::open()
{
    close();
    fd_ = Fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    putText(name.sun_path, XCP_SOCKET_PATH);
    if (isOpen() && ::connect(fd(), reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0) return true;
    const int error = errno;
    close();
    errno = error;
    return false;
}

void XcpLink::close()
{
    fd_.reset();
    in_.clear();
    out_.clear();
}

void XcpLink::send(const std::string& bytes)
{
    out_ += bytes;
    flush();
}

void XcpLink::flush()
{
    while (!out_.empty() && isOpen()) {
        const ssize_t sent = ::send(fd(), out_.data(), out_.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent <= 0) return; // no room; or nobody is there, which receive() finds out
        out_.erase(0, static_cast<std::size_t>(sent));
    }
}

bool XcpLink::receive(const std::function<void(const XcpFrame&)>& take)
{
    std::array<char, 16384> bytes; // NOLINT(cppcoreguidelines-pro-type-member-init): recv fills it
    const ssize_t count = ::recv(fd(), bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (count < 0) return errno == EAGAIN || errno == EINTR;
    if (count == 0) return false;
    in_.append(bytes.data(), static_cast<std::size_t>(count));
    while (const auto frame = takeFrame(in_))
        take(*frame);
    return in_.size() < MSG_RECORD_BYTES; // no frame of tessd's is longer
}
