#include "framework/queue_room.h"

#include <sys/socket.h>

#include "framework/bundled/own_queue.h"
#include "framework/tess_messages.h"

// A socket that sends, as the own one does, is writable whatever its destinations do. One that is
// connected is not writable while its peer's queue is full (unix(7) does not say so; the kernel's
// unix_dgram_poll() does).
int QueueRoom::watch(long address)
{
    sockaddr_un to{};
    const bool isAddress = address >= 1 && address <= HIGHEST_QUEUE_ADDRESS;
    if (fd_.get() < 0) fd_.reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!isAddress || !ownQueue.directory().socketAddress(address, to) ||
        ::connect(fd_.get(), reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0)
        stop();
    return fd_.get();
}

void QueueRoom::stop()
{
    fd_.reset();
}
