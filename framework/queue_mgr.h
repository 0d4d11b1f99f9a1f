#pragma once

#include "framework/orb_attachment_msg.h"

/// Which records getMsg() takes.
enum TMsgQueueTypes : int {
    MSG_QUEUE_ALL = 0, ///< every record; no other type is in use
};

/// The process's access to the message queues: its own queue, once a TMsgProc has opened it, and everybody else's.
class TQueueMgr {
public:
    /// Takes the next record of this process's own queue, in order of arrival.
    /// The sender word is the address of the queue that sent the record, 0 for a sender without one; what the sending
    /// process wrote there is not trusted. Bytes of `msg` that the record did not fill are zero.
    /// @param msg   receives the record; owned by the caller, 8192 bytes
    /// @param type  MSG_QUEUE_ALL
    /// @param wait  true: sleeps until a record comes, a signal arrives or at most one second has passed;
    ///              false: looks once
    /// @return bytes received (16 to 8192); 0 nothing came; negative on an error, or when no queue is open
    /// Threads: one thread at a time.
    long getMsg(TOrbAttachmentMsg* msg, TMsgQueueTypes type, bool wait);

    /// Puts a copy of a record into the queue of another process.
    /// Does not raise SIGPIPE. While it waits it takes records that arrive on this process's own queue aside; getMsg()
    /// hands those out first.
    /// @param address  queue address, 1 to 2147483647
    /// @param msg      stays the caller's
    /// @param length   bytes to send: header and text; above 8192 is taken as 8192, below 16 is an error
    /// @param wait     what happens when the destination's queue is full. true: waits for room. false: waits 250 ms at
    ///                 most, and once that has run out further calls to this destination fail at once until it has room
    /// @return 0 the record is in the destination's queue; nonzero it is not: no such queue, its owner is gone, no room
    /// Threads: any.
    long sendMsg(long address, TOrbAttachmentMsg* msg, long length, bool wait);
};

/// The process's one queue manager. Usable from start to exit, and while static objects are destroyed.
extern TQueueMgr g_qMgr;
