// For another framework's library, which gives one record at a time.
#include "framework/queue_mgr.h"
#include "framework/queue_reader.h"

class QueueReader::Batch {};

QueueReader::QueueReader(TOrbAttachmentMsg& record) : record_(record) {}

QueueReader::~QueueReader() = default;

long QueueReader::next(bool wait)
{
    return g_qMgr.getMsg(&record_, MSG_QUEUE_ALL, wait);
}

bool QueueReader::hasNext() const
{
    return false;
}

void QueueReader::forget() {}
