// For another framework's library, which does not tell when a queue has room: whoever waits for
// that tries again by the clock.
#include "framework/queue_room.h"

int QueueRoom::watch(long /*address*/)
{
    return -1;
}

void QueueRoom::stop() {}
