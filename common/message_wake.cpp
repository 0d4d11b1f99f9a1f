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
    // A failure does not matter: when the queue is full, the loop has something to take and does
    // not wait.
    (void)g_qMgr.sendMsg(TESS_QUEUE_ID, &msg, MSG_HEADER_BYTES, false);
}

bool takeMessageWake() noexcept
{
    return isWoken.exchange(false);
}
