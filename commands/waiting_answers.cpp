#include "commands/waiting_answers.h"

#include <cstring>
#include <new>

#include "framework/queue_mgr.h"

bool WaitingAnswers::send(long address, TOrbAttachmentMsg& msg, long length) noexcept
try {
    QueueWaiter once; // most answers are sent at once, and need no copy
    if (fullQueues_.send(once, address, msg, length) != SEND_QUEUE_FULL) return false;
    fullQueues_.leave(once);
    if (answers_.size() >= MAX_ANSWERS) return false;
    const auto* const bytes = reinterpret_cast<const char*>(&msg);
    answers_.push_back({address, std::vector<char>(bytes, bytes + length), {}});
    const bool kept = fullQueues_.send(answers_.back().waiter, address, msg, length) == SEND_QUEUE_FULL;
    if (!kept) answers_.pop_back();
    return kept;
} catch (const std::bad_alloc&) {
    return false;
}

/// Tries to send an answer, when that may succeed.
/// @return true when it has been sent, or cannot be delivered: either way it is done with
bool WaitingAnswers::isDone(Answer& answer, const WaitSet& waits) noexcept
try {
    if (!fullQueues_.mayTry(answer.waiter, waits)) return false;
    TOrbAttachmentMsg msg;
    std::memcpy(&msg, answer.record.data(), answer.record.size());
    return fullQueues_.send(answer.waiter, answer.address, msg, static_cast<long>(answer.record.size())) !=
           SEND_QUEUE_FULL;
} catch (const std::bad_alloc&) {
    return false; // next time
}

void WaitingAnswers::goOn(const WaitSet& waits)
{
    answers_.remove_if([this, &waits](Answer& answer) { return isDone(answer, waits); });
}
