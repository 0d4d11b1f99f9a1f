#include "connections/conn_peer.h"

#include <arpa/inet.h>
#include <array>
#include <fcntl.h>
#include <netinet/in.h>
#include <unistd.h>

#include "common/text.h"
#include "framework/fd.h"
#include "framework/tess_messages.h"

namespace {

FixedText<64> addressOf(int fd)
{
    FixedText<64> text;
    sockaddr_in address{};
    socklen_t size = sizeof address;
    if (::getpeername(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) return text;
    std::array<char, INET_ADDRSTRLEN> dotted{};
    if (::inet_ntop(AF_INET, &address.sin_addr, dotted.data(), dotted.size()) == nullptr) return text;
    return text << dotted.data() << ':' << ntohs(address.sin_port);
}

std::optional<ucred> credentialsOf(int fd)
{
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) return std::nullopt;
    return credentials;
}

} // namespace

ConnPeer peerOf(const TPortConn& conn)
{
    ConnPeer peer;
    switch (conn.portId) {
    case PORT_COM2:
        peer.address << COM2_DEVICE;
        break;
    case PORT_TELNET:
        peer.address = addressOf(conn.fd);
        break;
    default:
        peer.credentials = credentialsOf(conn.fd);
    }
    return peer;
}

FixedText<64> programOf(pid_t pid)
{
    FixedText<64> name;
    FixedText<64> path;
    path << "/proc/" << pid << "/comm";
    const Fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, 64> text{};
    const ssize_t count = file.get() < 0 ? 0 : ::read(file.get(), text.data(), text.size());
    if (count <= 0) return name;
    return name << withoutLineEnds({text.data(), static_cast<std::size_t>(count)});
}

FixedText<128> peerText(const ConnPeer& peer, std::string_view program)
{
    FixedText<128> text;
    text << peer.address.view();
    if (!peer.credentials) return text;
    text << "pid " << peer.credentials->pid;
    if (!program.empty()) text << ' ' << program;
    return text << " uid " << peer.credentials->uid;
}
