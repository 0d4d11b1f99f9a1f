#include "tests/support/queue_process.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "framework/fixed_text.h"
#include "tests/support/waiting.h"

namespace {

sockaddr_un socketAddress(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) std::abort();
    putText(address.sun_path, path);
    return address;
}

} // namespace

TempQueueDir::TempQueueDir() : path_("/tmp/tess-queues-XXXXXX")
{
    if (::mkdtemp(path_.data()) == nullptr) std::abort();
    ::setenv("TESS_QUEUE_DIR", path_.c_str(), 1);
}

TempQueueDir::~TempQueueDir()
{
    ::unsetenv("TESS_QUEUE_DIR");
    std::error_code ignored; // what is left lies in a /tmp that nobody sees
    std::filesystem::remove_all(path_, ignored);
}

QueueProcess::QueueProcess(const TempQueueDir& directory, long address)
    : directory_(directory.path()), address_(address), fd_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
{
    const sockaddr_un name = socketAddress(pathOf(address));
    if (fd_ < 0 || ::bind(fd_, reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0) std::abort();
}

QueueProcess::~QueueProcess()
{
    die();
    ::unlink(pathOf(address_).c_str());
}

void QueueProcess::die()
{
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

std::string QueueProcess::pathOf(long address) const
{
    return directory_ + "/" + std::to_string(address);
}

std::optional<Received> QueueProcess::take(int flags) const
{
    Received received{};
    const ssize_t n = ::recv(fd_, &received.record, sizeof received.record, flags);
    if (n < static_cast<ssize_t>(MSG_HEADER_BYTES)) return std::nullopt;
    received.length = static_cast<std::size_t>(n);
    return received;
}

std::optional<Received> QueueProcess::receive() const
{
    pollfd input{};
    input.fd = fd_;
    input.events = POLLIN;
    const std::chrono::milliseconds deadline = DEADLINE;
    if (::poll(&input, 1, static_cast<int>(deadline.count())) != 1) return std::nullopt;
    return take(MSG_DONTWAIT);
}

std::vector<Received> QueueProcess::receiveAll() const
{
    std::vector<Received> all;
    while (auto received = take(MSG_DONTWAIT))
        all.push_back(*received);
    return all;
}

std::vector<std::string> QueueProcess::receiveTexts() const
{
    std::vector<std::string> texts;
    for (const Received& received : receiveAll())
        texts.emplace_back(received.text());
    return texts;
}

bool QueueProcess::send(long to, const TOrbAttachmentMsg& record, std::size_t length) const
{
    const sockaddr_un name = socketAddress(pathOf(to));
    return ::sendto(fd_, &record, length, MSG_NOSIGNAL | MSG_DONTWAIT, reinterpret_cast<const sockaddr*>(&name),
                    sizeof name) == static_cast<ssize_t>(length);
}

Outgoing message(std::uint32_t kind, std::string_view text, std::uint32_t tag, std::int32_t len)
{
    Outgoing out;
    out.record.kind = kind;
    out.record.tag = tag;
    out.record.len = len;
    out.length += putText(out.record.text, text) + 1;
    return out;
}

Outgoing registration(std::uint32_t portMask, std::string_view name, bool nul)
{
    Outgoing out;
    out.record.kind = 200;
    std::memcpy(out.record.text, &portMask, sizeof portMask);
    const std::size_t room = MSG_TEXT_BYTES - sizeof portMask;
    const std::size_t n = std::min(name.size(), room);
    std::memcpy(out.record.text + sizeof portMask, name.data(), n);
    out.length += sizeof portMask + std::min(n + (nul ? 1 : 0), room);
    return out;
}
