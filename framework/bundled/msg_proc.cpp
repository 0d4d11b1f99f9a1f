#include "framework/msg_proc.h"

#include "framework/bundled/own_queue.h"

TMsgProc::TMsgProc(long queueId, bool openQueue) : queueId_(queueId), open_(openQueue)
{
    if (open_)
        ownQueue.open(queueId_);
    else
        ownQueue.useEnvironment();
}

TMsgProc::~TMsgProc()
{
    if (open_) ownQueue.close();
}
