#pragma once

#include <atomic>
#include <mutex>
#include <sys/types.h>

#include "framework/bundled/msg_backlog.h"
#include "framework/bundled/queue_directory.h"
#include "framework/bundled/queue_file.h"
#include "framework/bundled/record_batch.h"
#include "framework/orb_attachment_msg.h"

/// The queue that this process receives at, once it is open, and the socket that it sends from,
/// open or not. Trivially destructible: a thread that outlives main() may use it while the process
/// ends.
/// Threads: receive() one at a time; everything else any.
class OwnQueue {
public:
    /// What drain() found.
    enum class Drained {
        records, ///< took some
        nothing, ///< there was none
        /// Another thread is receiving and takes the records itself; or this is a forked child that
        /// has not received yet, and the records are left to its parent.
        busy,
        full, ///< no room to keep any
    };

    constexpr OwnQueue() = default;
    OwnQueue(const OwnQueue&) = delete;
    OwnQueue& operator=(const OwnQueue&) = delete;

    /// Looks anew which directory the queues are in.
    void useEnvironment();

    /// Opens the queue of that address in the directory that the environment names.
    /// @param address  1 to HIGHEST_QUEUE_ADDRESS, else an error
    /// @throws std::runtime_error  after the same text has been logged
    void open(long address);

    /// Frees the address and forgets the records that nobody has taken. Waits for a receive() that
    /// is under way. Does nothing when the queue is not open. A forked child only forgets the
    /// queue, without waiting: its parent goes on.
    void close();

    bool isOpen() const { return open_.load(); }

    /// @param wait  true: for up to one second, or until a signal arrives
    /// @return bytes received; 0 none; -1 on an error, which errno then tells: EBADF when the queue
    ///         is not open
    long receive(TOrbAttachmentMsg* msg, bool wait);

    /// Receives as many records as wait and the batch has room for, which was prepared. One that is
    /// no record, by isRecord(), is among them too, and its sender word says nothing.
    /// @param wait  as above, for the first one
    /// @return how many; else as above
    long receive(RecordBatch& batch, bool wait);

    /// @return true for the length of a record
    static bool isRecord(std::size_t length) { return length >= MSG_HEADER_BYTES && length <= MSG_RECORD_BYTES; }

    /// Takes records that have arrived into the backlog, so that their senders need not wait. Does
    /// not wait.
    Drained drain();

    /// The socket to send from: the queue's own, or an unbound one while no queue is open. Its
    /// number never changes and is never closed, so it may be used while another thread opens or
    /// closes the queue; except in a forked child that has no descriptor to spare when it closes.
    /// @return -1: it cannot be made
    int socket();

    /// Called in a forked child, before anything else there. The locks are free, whichever thread
    /// of the parent held them. What the parent has taken aside stays the parent's; the queue
    /// itself can be read by both.
    void startInForkedChild();

    const QueueDirectory& directory();

private:
    void openLocked(long address);
    void removeFile() noexcept;
    void forget();
    bool mayReceive();
    long takeFromSocket(TOrbAttachmentMsg* msg, int flags);
    long takeFromSocket(RecordBatch& batch, int flags);

    std::mutex openLock_;
    std::atomic<bool> open_{false};
    std::atomic<int> socket_{-1};
    std::atomic<const QueueDirectory*> directory_{nullptr};
    std::atomic<pid_t> owner_{0};
    std::atomic<bool> inherited_{false}; ///< opened before this process was forked, and not read here yet
    QueueFile file_;

    std::mutex receiveLock_; ///< guards backlog_ and who reads the socket, so that the order of arrival holds
    MsgBacklog backlog_;
};

/// This process's own queue.
extern OwnQueue ownQueue;
