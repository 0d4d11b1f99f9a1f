#include "framework/queue_reader.h"

#include <cstring>

#include "framework/bundled/log_messages.h"
#include "framework/bundled/own_queue.h"
#include "framework/bundled/record_batch.h"

class QueueReader::Batch {
public:
    explicit Batch(TOrbAttachmentMsg& record) : records_(record) {}

    bool hasNext() const { return next_ < count_; }
    void forget() { next_ = count_ = 0; }

    /// @return as OwnQueue::receive() without a record; else more than 0
    long fill(bool wait)
    {
        records_.reuse(count_);
        forget();
        records_.want(alone_ < SEVERAL || alone_ % SEVERAL == 0 ? RecordBatch::MOST : 1);
        const long count = ownQueue.receive(records_, wait);
        if (count > 0) count_ = static_cast<std::size_t>(count);
        alone_ = count > 1 ? 0 : alone_ + 1;
        return count;
    }

    /// @param record  the batch's first
    /// @return its bytes; 0 for a datagram that was no record
    long take(TOrbAttachmentMsg& record)
    {
        const std::size_t index = next_++;
        const std::size_t length = records_.headers()[index].msg_len;
        auto* const bytes = reinterpret_cast<char*>(&record);
        if (!OwnQueue::isRecord(length)) {
            std::memset(bytes, 0, MSG_RECORD_BYTES);
            filled_ = 0;
            logMessage(framework_log::datagramDropped, length);
            return 0;
        }
        if (index > 0) std::memcpy(bytes, &records_.record(index), length);
        if (length < filled_) std::memset(bytes + length, 0, filled_ - length);
        filled_ = length;
        return static_cast<long>(length);
    }

private:
    /// To find no second record costs a little too: once so many have come alone, one is looked for
    /// only as often. Chosen, not measured.
    static constexpr unsigned SEVERAL = 16;

    RecordBatch records_;
    unsigned alone_ = 0; ///< calls in a row that gave one record, or none
    std::size_t count_ = 0;
    std::size_t next_ = 0;
    std::size_t filled_ = MSG_RECORD_BYTES; ///< bytes of the record that may be other than zero
};

QueueReader::QueueReader(TOrbAttachmentMsg& record) : record_(record), batch_(new Batch(record)) {}

QueueReader::~QueueReader() = default;

long QueueReader::next(bool wait)
{
    if (!batch_->hasNext()) {
        const long count = batch_->fill(wait);
        if (count <= 0) return count;
    }
    return batch_->take(record_);
}

bool QueueReader::hasNext() const
{
    return batch_->hasNext();
}

void QueueReader::forget()
{
    batch_->forget();
}
