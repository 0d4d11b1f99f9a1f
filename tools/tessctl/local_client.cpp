#include "tools/tessctl/local_client.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>
#include <thread>

#include "framework/fixed_text.h"
#include "framework/tess_messages.h"
#include "tools/tessctl/bounded_connect.h"
#include "tools/tessctl/exit_status.h"
#include "tools/tessctl/likely_cause.h"

namespace {

constexpr std::size_t BURST_LIMIT = 1024; // tessd throws away what it finds in one piece of this size
constexpr std::chrono::milliseconds BETWEEN_LOOKS{1};

/// In host byte order; the first two words mean nothing.
struct FrameHeader {
    std::uint32_t word0 = 0;
    std::uint32_t word1 = 0;
    std::uint32_t tag = 0;
    std::uint32_t length = 0;
};

Fd connectTo(const char* path, std::chrono::milliseconds patience)
{
    Fd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    putText(name.sun_path, path);
    const int error =
        fd.get() < 0 ? errno : connectWithin(patience, fd.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name);
    if (error == 0) return fd;
    throw CtlError(error == ETIMEDOUT ? STATUS_NO_ANSWER : STATUS_NO_CONNECTION,
                   failureText(path, error, PathOf::localSocket));
}

} // namespace

const char* pathOf(LocalPort port)
{
    return port == LocalPort::ipc ? IPC_SOCKET_PATH : XCP_SOCKET_PATH;
}

LocalClient::LocalClient(LocalPort port, std::uint16_t tag, std::chrono::milliseconds patience)
    : port_(port), tag_(tag), path_(pathOf(port)), fd_(connectTo(path_, patience))
{
}

bool LocalClient::roomFor(std::size_t bytes)
{
    int unread = 0;
    if (::ioctl(fd(), SIOCOUTQ, &unread) == 0 && unread == 0) unread_ = 0;
    return unread_ + bytes < BURST_LIMIT;
}

void LocalClient::sendLine(std::string_view line, std::chrono::milliseconds patience)
{
    std::string bytes;
    if (port_ == LocalPort::xcp) {
        const FrameHeader header{.tag = tag_, .length = static_cast<std::uint32_t>(line.size())};
        bytes.assign(reinterpret_cast<const char*>(&header), sizeof header);
    }
    bytes += line;
    if (port_ == LocalPort::ipc) bytes += '\n';

    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (!roomFor(bytes.size())) {
        if (std::chrono::steady_clock::now() > deadline)
            throw CtlError(STATUS_NO_ANSWER, std::string(path_) + ": tessd does not read: is it stuck?");
        std::this_thread::sleep_for(BETWEEN_LOOKS);
    }
    unread_ += bytes.size();
    // So little always fits the socket's buffer whole.
    if (::send(fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(bytes.size()))
        throw CtlError(STATUS_NO_CONNECTION, closedText());
}

std::string LocalClient::closedText() const
{
    return std::string(path_) + ": tessd has closed the connection: are ten others connected, or has it ended?";
}

LocalClient::Received LocalClient::receive(std::chrono::milliseconds patience, std::string& text)
{
    text.clear();
    pollfd input{fd(), POLLIN, 0};
    const int ready = ::poll(&input, 1, static_cast<int>(std::max<std::int64_t>(patience.count(), 0)));
    if (ready == 0 || (ready < 0 && errno == EINTR)) return Received::nothing;
    std::array<char, 16384> bytes; // NOLINT(cppcoreguidelines-pro-type-member-init): recv fills it
    const ssize_t count = ::recv(fd(), bytes.data(), bytes.size(), 0);
    if (count <= 0) return Received::closed;
    const std::string_view arrived(bytes.data(), static_cast<std::size_t>(count));
    if (port_ == LocalPort::ipc) {
        text = arrived;
    } else {
        frames_ += arrived;
        takeFrames(text);
    }
    return text.empty() ? Received::nothing : Received::text;
}

void LocalClient::takeFrames(std::string& text)
{
    FrameHeader header;
    while (frames_.size() >= sizeof header) {
        std::memcpy(&header, frames_.data(), sizeof header);
        if (frames_.size() - sizeof header < header.length) return; // no sum, which may not fit 32 bits
        const std::string_view payload = std::string_view(frames_).substr(sizeof header, header.length);
        text += payload.substr(0, payload.find('\0'));
        frames_.erase(0, sizeof header + header.length);
    }
}
