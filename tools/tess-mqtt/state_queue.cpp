#include "tools/tess-mqtt/state_queue.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

#include "framework/fixed_text.h"
#include "framework/sleep.h"
#include "framework/tess_messages.h"
#include "tools/tessctl/daemon_client.h"

namespace {

// As tessctl's own: far from the addresses of device processes.
constexpr long FIRST_ADDRESS = 1'000'000'000;
constexpr long ADDRESS_STEP = 5'000'000; // more than there are process numbers
constexpr int MOST_TRIES = 100;
constexpr int LOCK_TRIES = 20;
constexpr int LOCK_PAUSE_MS = 10;

sockaddr_un nameOf(const std::string& path)
{
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    putText(name.sun_path, path);
    return name;
}

/// Others who open a queue keep the lock for a moment.
bool isLocked(int directory)
{
    for (int tries = 0; tries < LOCK_TRIES; ++tries) {
        if (::flock(directory, LOCK_EX | LOCK_NB) == 0) return true;
        if (errno != EWOULDBLOCK) return false;
        Sleep(LOCK_PAUSE_MS);
    }
    return false;
}

} // namespace

/// With the directory locked, so that nobody takes the address meanwhile.
bool StateQueue::bindTo(long address)
{
    const Fd lock(::open(queueDirectory().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (lock.get() < 0 || !isLocked(lock.get())) return false;
    path_ = queuePath(address);
    if (queueError(address) == ECONNREFUSED) (void)::unlink(path_.c_str()); // its owner is dead
    const sockaddr_un name = nameOf(path_);
    (void)::fchmod(fd_.get(), 0660); // the file gets its mode
    return ::bind(fd_.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0;
}

std::string StateQueue::open()
{
    close();
    fd_ = Fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    long address = FIRST_ADDRESS + ::getpid();
    for (int tries = 0; tries < MOST_TRIES && queueError(address) == 0; ++tries)
        address += ADDRESS_STEP;
    if (fd_.get() >= 0 && bindTo(address)) return {};
    std::string why = queuePath(address) + ": " + std::strerror(errno);
    fd_.reset();
    path_.clear();
    return why;
}

void StateQueue::close()
{
    if (!path_.empty()) (void)::unlink(path_.c_str());
    path_.clear();
    fd_.reset();
}

bool StateQueue::send(std::uint32_t kind, const std::string& text)
{
    if (fd_.get() < 0) return false;
    TOrbAttachmentMsg record{.kind = kind, .sender = 0, .tag = tag_, .len = 0, .text = {}};
    const std::size_t bytes = MSG_HEADER_BYTES + text.copy(record.text, sizeof record.text);
    const sockaddr_un name = nameOf(queuePath(TESS_QUEUE_ID));
    return ::sendto(fd_.get(), &record, bytes, MSG_DONTWAIT | MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&name),
                    sizeof name) == static_cast<ssize_t>(bytes);
}

bool StateQueue::ask()
{
    ++tag_;
    text_.clear();
    return send(MSG_STATUS, "");
}

bool StateQueue::watch(bool on)
{
    return send(MSG_WATCH, std::string(1, on ? '\1' : '\0'));
}

void StateQueue::receive(const std::function<void(const std::vector<Item>&)>& state,
                         const std::function<void(const Item&)>& events)
{
    TOrbAttachmentMsg record{};
    sockaddr_un from{};
    socklen_t size = sizeof from;
    const ssize_t count =
        ::recvfrom(fd_.get(), &record, sizeof record, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&from), &size);
    if (count < static_cast<ssize_t>(MSG_HEADER_BYTES) || from.sun_path != queuePath(TESS_QUEUE_ID)) return;
    const std::size_t room = static_cast<std::size_t>(count) - MSG_HEADER_BYTES;
    const std::string_view text(record.text, ::strnlen(record.text, room));
    if (record.kind == MSG_WATCH_TEXT) {
        for (const Item& event : parseItems(text))
            events(event);
    }
    if (record.kind != MSG_STATUS_TEXT || record.tag != tag_) return;
    text_ += text;
    if (record.len == 0) state(parseItems(std::exchange(text_, {})));
}
