#include "framework/msg_dmn.h"

TMsgDmn::TMsgDmn(long queueId, bool openQueue) : TMsgProc(queueId, openQueue) {}
