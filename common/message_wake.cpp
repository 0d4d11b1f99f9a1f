#include "common/message_wake.h"

#include <atomic>

#include "framework/queue_mgr.h"
#include "framework/tess_messages.h"

namespace {

constexpr std::uint32_t WAKE_KIND = 0;

constinit std::atomic<bool> isWoken{false};

} // namespace

void wakeMessageLoop() noexcept
{
    isWoken = true;
    TOrbAttachmentMsg msg; // without text
    msg.kind = WAKE_KIND;
    msg.tag = 0;
    msg.len = 0;
    (void)g_qMgr.sendMsg(TESS_QUEUE_ID, &msg, MSG_HEADER_BYTES, false); // a loop whose queue is full does not wait
}

bool takeMessageWake() noexcept
{
    return isWoken.exchange(false);
}
