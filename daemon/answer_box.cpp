#include "daemon/answer_box.h"

#include <cstring>
#include <memory>

namespace {

/// Where a record may begin: its words are looked at as such.
std::size_t aligned(std::size_t bytes)
{
    constexpr std::size_t step = alignof(TOrbAttachmentMsg);
    return (bytes + step - 1) / step * step;
}

} // namespace

bool AnswerBox::put(const TOrbAttachmentMsg& msg, std::size_t textBytes)
{
    const std::scoped_lock lock(lock_);
    Side& side = sides_[filling_];
    // A whole record must fit, however little of it is used: then it is one, for whoever reads it.
    if (side.count == side.answers.size() || side.used + MSG_RECORD_BYTES > side.bytes.size()) return false;
    char* const place = &side.bytes[side.used];
    std::memcpy(place, &msg, MSG_HEADER_BYTES + textBytes);
    place[MSG_HEADER_BYTES + textBytes] = '\0';
    side.used = aligned(side.used + MSG_HEADER_BYTES + textBytes + 1);
    side.answers[side.count++] = reinterpret_cast<TOrbAttachmentMsg*>(place);
    return true;
}

bool AnswerBox::isEmpty()
{
    const std::scoped_lock lock(lock_);
    return sides_[filling_].count == 0;
}

std::span<TOrbAttachmentMsg* const> AnswerBox::take()
{
    const std::scoped_lock lock(lock_);
    Side& taken = sides_[filling_];
    if (taken.count == 0) return {}; // what was taken before stays
    filling_ = 1 - filling_;
    sides_[filling_].used = 0;
    sides_[filling_].count = 0;
    return std::span(taken.answers).first(taken.count);
}

void AnswerBox::startInForkedChild()
{
    std::construct_at(&lock_);
    filling_ = 0;
    sides_[0].used = 0;
    sides_[0].count = 0;
}
