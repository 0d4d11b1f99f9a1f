#include "framework/bundled/queue_sender.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <poll.h>
#include <sys/socket.h>

#include "framework/queue_room.h"

/// Sleeps until the destination may have room again or the own queue has something to take. When
/// room was reported twice in a row and there was none, it sleeps for a short time instead, and
/// then trusts the reports again.
class QueueSender::RoomWait {
public:
    explicit RoomWait(long address) : address_(address) { (void)room_.watch(address_); }

    /// @param ownFd    the own queue, to wake up when it has something to take; negative: not
    ///                 waited for
    /// @param recheck  wake up soon, although nothing may tell that there is a reason to
    void wait(int ownFd, bool recheck)
    {
        const bool mistrusted = room_.fd() < 0 || wrongReports_ >= 2;
        const bool pausing = mistrusted || recheck;
        std::array<pollfd, 2> waitFor{};
        waitFor[0].fd = mistrusted ? -1 : room_.fd();
        waitFor[0].events = POLLOUT;
        waitFor[1].fd = ownFd;
        waitFor[1].events = POLLIN;
        const Millis sleep = pausing ? pause_ : LONGEST_SLEEP;
        const int ready = ::poll(waitFor.data(), waitFor.size(), static_cast<int>(sleep.count()));
        if (pausing && ready == 0) pause_ = std::min(pause_ * 2, LONGEST_PAUSE);
        if (mistrusted) {
            (void)room_.watch(address_); // a failure needs no answer here: the next attempt to send meets the same one
            wrongReports_ = 1;
        } else {
            wrongReports_ = waitFor[0].revents != 0 ? wrongReports_ + 1 : 0;
        }
    }

    void progress() { pause_ = SHORTEST_PAUSE; }

private:
    static constexpr Millis SHORTEST_PAUSE{1};
    static constexpr Millis LONGEST_PAUSE{8};
    /// After that the path is tried again: it may lead to a new socket meanwhile. Chosen, not
    /// measured.
    static constexpr Millis LONGEST_SLEEP{1000};

    long address_;
    QueueRoom room_;
    int wrongReports_ = 0; ///< in a row
    Millis pause_ = SHORTEST_PAUSE;
};

SendResult QueueSender::trySend()
{
    const int fd = own_.socket();
    if (fd < 0) return SEND_FAILED;
    const ssize_t sent =
        ::sendto(fd, msg_, length_, MSG_DONTWAIT | MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&to_), sizeof to_);
    if (sent >= 0) return SEND_DONE;
    const bool full = errno == EAGAIN || errno == EWOULDBLOCK || errno == ENOBUFS || errno == EINTR;
    return full ? SEND_QUEUE_FULL : SEND_FAILED;
}

SendResult QueueSender::sendWhenRoom()
{
    using enum OwnQueue::Drained;
    RoomWait room(address_);
    Clock::time_point lastProgress = Clock::now();
    for (;;) {
        const OwnQueue::Drained drained = own_.drain();
        const SendResult sent = trySend();
        if (sent != SEND_QUEUE_FULL) return sent;

        if (drained == records) {
            lastProgress = Clock::now();
            room.progress();
        }
        if (drained == full && Clock::now() >= lastProgress + PATIENCE) return SEND_QUEUE_FULL;

        const bool cannotDrain = drained == busy || drained == full;
        room.wait(cannotDrain || !own_.isOpen() ? -1 : own_.socket(), cannotDrain);
    }
}
