#include "framework/bundled/queue_sender.h"

#include "framework/bundled/queue_fd.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <poll.h>
#include <sys/socket.h>

/// Sleeps until the destination may have room again or the own queue has something to take.
/// The own socket says "writable" whatever its destinations do; a second one, connected to the destination, tells its
/// room. Both can be wrong: the own send buffer may be used up, or the destination may be another socket by now.
/// Therefore a report of room that proves wrong twice running is answered with pauses.
class TQueueSender::RoomWait {
public:
    explicit RoomWait(const sockaddr_un& to)
        : to_(to), probe_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
    {
        connectProbe();
    }

    /// @param ownFd    the own queue, to wake up when it has something to take; negative: not waited for
    /// @param recheck  wake up soon, although nothing may tell that there is a reason to
    /// @param most     longest sleep
    void wait(int ownFd, bool recheck, Millis most)
    {
        const bool mistrusted = probe_.get() < 0 || wrongReports_ >= 2;
        const bool pausing = mistrusted || recheck;
        std::array<pollfd, 2> waitFor{};
        waitFor[0].fd = mistrusted ? -1 : probe_.get();
        waitFor[0].events = POLLOUT;
        waitFor[1].fd = ownFd;
        waitFor[1].events = POLLIN;
        const Millis sleep = std::clamp(pausing ? pause_ : LONGEST_SLEEP, Millis(1), std::max(most, Millis(1)));
        const int ready = ::poll(waitFor.data(), waitFor.size(), static_cast<int>(sleep.count()));
        if (pausing && ready == 0) pause_ = std::min(pause_ * 2, LONGEST_PAUSE);
        if (mistrusted) {
            connectProbe();
            wrongReports_ = 1;
        } else {
            wrongReports_ = waitFor[0].revents != 0 ? wrongReports_ + 1 : 0;
        }
    }

    void progress() { pause_ = SHORTEST_PAUSE; }

private:
    static constexpr Millis SHORTEST_PAUSE{1};
    static constexpr Millis LONGEST_PAUSE{8};
    /// After that the path is tried again: it may lead to a new socket meanwhile. Chosen, not measured.
    static constexpr Millis LONGEST_SLEEP{1000};

    void connectProbe()
    {
        // A failure needs no answer here: the next attempt to send meets the same one.
        (void)::connect(probe_.get(), reinterpret_cast<const sockaddr*>(&to_), sizeof to_);
    }

    const sockaddr_un& to_;
    TQueueFd probe_;
    int wrongReports_ = 0; ///< in a row
    Millis pause_ = SHORTEST_PAUSE;
};

TQueueSender::Sent TQueueSender::trySend()
{
    const int fd = own_.socket();
    if (fd < 0) return Sent::failed;
    const ssize_t sent =
        ::sendto(fd, msg_, length_, MSG_DONTWAIT | MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&to_), sizeof to_);
    if (sent >= 0) return Sent::done;
    return errno == EAGAIN || errno == EWOULDBLOCK || errno == ENOBUFS || errno == EINTR ? Sent::noRoom : Sent::failed;
}

TQueueSender::Sent TQueueSender::sendWhenRoom(bool bounded)
{
    using enum TOwnQueue::Drained;
    RoomWait room(to_);
    const Clock::time_point start = Clock::now();
    Clock::time_point lastProgress = start;
    for (;;) {
        const TOwnQueue::Drained drained = own_.drain();
        const Sent sent = trySend();
        if (sent != Sent::noRoom) return sent;

        const Clock::time_point now = Clock::now();
        if (drained == records) {
            lastProgress = now;
            room.progress();
        }
        Millis left = Millis::max();
        if (bounded)
            left = std::chrono::ceil<Millis>(start + PATIENCE - now);
        else if (drained == full)
            left = std::chrono::ceil<Millis>(lastProgress + PATIENCE - now);
        if (left <= Millis(0)) return Sent::noRoom;

        const bool cannotDrain = drained == busy || drained == full;
        room.wait(cannotDrain || !own_.isOpen() ? -1 : own_.socket(), cannotDrain, left);
    }
}
