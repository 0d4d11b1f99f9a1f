#pragma once

#include "framework/orb_attachment_msg.h"

/// Which records getMsg() takes.
enum TMsgQueueTypes : int {
    MSG_QUEUE_ALL = 0, ///< every record; no other type is in use
};

/// What TQueueMgr::sendMsg() returns. Another framework's library may give any nonzero number;
/// SEND_FAILED is then assumed.
enum SendResult : long {
    SEND_DONE = 0,   ///< the record is in the destination's queue
    SEND_FAILED = 1, ///< it cannot be delivered: no such queue, its owner is gone, no right to send there, a bad length
    SEND_QUEUE_FULL = 2, ///< the destination's queue is full, or this process's send buffer is
};

/// The process's access to the message queues: its own queue, once a TMsgProc has opened it, and
/// everybody else's. A forked child sends as its parent does, and when it calls getMsg() each
/// record goes to one of the two; what the parent had taken aside stays the parent's. It never
/// waits for a thread that it does not have.
class TQueueMgr {
public:
    /// Takes the next record of this process's own queue, in order of arrival. The sender word is
    /// the address of the queue that sent the record, 0 for a sender without one; what the sending
    /// process wrote there is not trusted. Bytes of `msg` that the record did not fill are zero.
    /// @param msg   receives the record; owned by the caller, 8192 bytes
    /// @param type  MSG_QUEUE_ALL
    /// @param wait  true: sleeps until a record comes, a signal arrives or at most one second has
    ///              passed; false: looks once
    /// @return bytes received (16 to 8192); 0 nothing came, also at once for a datagram that was no
    ///         record (dropped, with a log line), and then `msg` may have been zeroed; negative on
    ///         an error, told by errno (recvmsg(2)): EBADF when no queue is open. That comes at
    ///         once, also with `wait`: a loop must end on it
    /// Threads: one thread at a time; sendMsg() may run meanwhile.
    long getMsg(TOrbAttachmentMsg* msg, TMsgQueueTypes type, bool wait);

    /// Puts a copy of a record into the queue of another process.
    /// Does not raise SIGPIPE. errno does not tell why it has failed.
    /// @param address  queue address, 1 to HIGHEST_QUEUE_ADDRESS
    /// @param msg      stays the caller's, and as it is; the sender word need not be set
    /// @param length   bytes to send: header and text; above 8192 is taken as 8192, below 16 is an
    ///                 error
    /// @param wait     what happens when the destination's queue is full. false: returns
    ///                 SEND_QUEUE_FULL at once, and QueueRoom tells when to try again. true: waits
    ///                 for room, however long, and a signal does not end that: its handler runs,
    ///                 and the call goes on. Meanwhile it takes records that arrive on this
    ///                 process's own queue aside, up to 16 MiB of them; getMsg() hands those out
    ///                 first. When nothing more can be taken aside (16 MiB are full, or memory is
    ///                 short) and nothing has moved for 250 ms, it gives up: the queue is full
    /// @return a SendResult
    /// Threads: any, several at once; not from a signal handler.
    long sendMsg(long address, TOrbAttachmentMsg* msg, long length, bool wait);
};

/// The process's one queue manager. Usable from start to exit, and while static objects are
/// destroyed.
extern TQueueMgr g_qMgr;
