#pragma once

#include <memory>

#include "framework/orb_attachment_msg.h"

/// Takes the records of this process's own queue one by one, as TQueueMgr::getMsg() does, with less
/// work: it may take several out of the queue at once, and it clears no more of the record than the
/// one before has filled. For a loop that is done with each record at once: while others are kept
/// here, their senders see an empty queue and nobody who takes anything out of it. Another
/// framework's library need not have it: then each record is taken by getMsg().
/// Threads: one, which is the only one that takes records.
class QueueReader {
public:
    /// @param record  receives each record; the caller's. Nobody writes to it behind the bytes of
    ///                the record that it holds, unless zeros
    explicit QueueReader(TOrbAttachmentMsg& record);
    QueueReader(const QueueReader&) = delete;
    QueueReader& operator=(const QueueReader&) = delete;
    ~QueueReader();

    /// Takes the next record; as TQueueMgr::getMsg().
    long next(bool wait);

    /// @return true when the next record has been taken out of the queue already
    bool hasNext() const;

    /// Forgets what has been taken out of the queue and not been asked for. In a process that has
    /// just been forked: those records are the parent's. Allocates nothing.
    void forget();

private:
    class Batch;

    TOrbAttachmentMsg& record_;
    std::unique_ptr<Batch> batch_;
};
