#include "framework/sleep.h"

#include <cerrno>
#include <ctime>

void Sleep(int milliseconds)
{
    if (milliseconds <= 0) return;
    timespec left{};
    left.tv_sec = milliseconds / 1000;
    left.tv_nsec = (milliseconds % 1000) * 1'000'000L;
    while (::nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}
