#include "tests/support/queue_process.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

#include "framework/fixed_text.h"
#include "tests/support/waiting.h"

TempQueueDir::TempQueueDir()
{
    ::setenv("TESS_QUEUE_DIR", path().c_str(), 1);
}

TempQueueDir::~TempQueueDir()
{
    ::unsetenv("TESS_QUEUE_DIR");
}

std::string TempQueueDir::pathOf(long address) const
{
    return *this / std::to_string(address);
}

QueueProcess::QueueProcess(const TempQueueDir& directory, long address)
    : directory_(directory), address_(address), socket_(std::in_place, directory.pathOf(address))
{
}

QueueProcess::~QueueProcess()
{
    ::unlink(directory_.pathOf(address_).c_str());
}

std::optional<Received> QueueProcess::take() const
{
    Received received{};
    const ssize_t n = ::recv(socket_->fd(), &received.record, sizeof received.record, MSG_DONTWAIT);
    if (n < static_cast<ssize_t>(MSG_HEADER_BYTES)) return std::nullopt;
    received.length = static_cast<std::size_t>(n);
    return received;
}

std::optional<Received> QueueProcess::receive() const
{
    pollfd input{};
    input.fd = socket_->fd();
    input.events = POLLIN;
    const std::chrono::milliseconds deadline = DEADLINE;
    if (::poll(&input, 1, static_cast<int>(deadline.count())) != 1) return std::nullopt;
    return take();
}

std::vector<Received> QueueProcess::receiveAll() const
{
    std::vector<Received> all;
    while (auto received = take())
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
    return socket_->sendTo(directory_.pathOf(to), &record, length);
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
