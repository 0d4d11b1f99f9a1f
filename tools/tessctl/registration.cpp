#include "tools/tessctl/registration.h"

#include <utility>

#include "framework/tess_messages.h"
#include "tools/tessctl/exit_status.h"
#include "tools/tessctl/record_text.h"
#include "tools/tessctl/say.h"

namespace {

constexpr std::chrono::seconds BETWEEN_LOOKS{1};

} // namespace

TRegistration::DaemonMark::DaemonMark()
{
    (void)::stat(queuePath(TESS_QUEUE_ID).c_str(), &seen_);
}

bool TRegistration::DaemonMark::changed()
{
    struct stat now {};
    if (::stat(queuePath(TESS_QUEUE_ID).c_str(), &now) != 0) return false;
    const bool same = now.st_ino == seen_.st_ino && now.st_ctim.tv_sec == seen_.st_ctim.tv_sec &&
                      now.st_ctim.tv_nsec == seen_.st_ctim.tv_nsec;
    if (!same && queueError(TESS_QUEUE_ID) != 0) return false; // not ready yet
    seen_ = now;
    return !same;
}

TRegistration::TRegistration(TDaemonClient& daemon, std::string name, std::uint32_t ports)
    : daemon_(daemon), name_(std::move(name)), ports_(ports)
{
    daemon_.registerAs(name_, ports_);
    nextLook_ = Clock::now();
}

std::size_t TRegistration::receive(TOrbAttachmentMsg& record)
{
    const std::size_t bytes = daemon_.receive(record);
    if (bytes > 0 && record.sender == TESS_QUEUE_ID && record.kind == MSG_REPLY) onReply(record);
    if (Clock::now() >= nextLook_) look();
    return bytes;
}

void TRegistration::look()
{
    nextLook_ = Clock::now() + BETWEEN_LOOKS;
    if (mark_.changed()) {
        missing_ = true;
        asked_ = false; // what an earlier tessd was asked is nothing to this one
    }
    if (!missing_) return;
    if (asked_ && Clock::now() < askedAt_ + TDaemonClient::REPLY_PATIENCE) return;
    try {
        daemon_.askToRegister(name_, ports_);
        asked_ = true;
        askedAt_ = Clock::now();
    } catch (const TCtlError& error) {
        complain(std::string("not registered again: ") + error.what());
    }
}

void TRegistration::onReply(const TOrbAttachmentMsg& record)
{
    if (!asked_) return;
    asked_ = false;
    if (record.tag != 0) {
        complain("tessd refuses: " + std::string(textOf(record)) + ": it is asked again every second");
        return;
    }
    missing_ = false;
    complaint_.clear();
    say("tessd was started anew, " + name_ + " has registered again");
}

void TRegistration::complain(const std::string& text)
{
    if (text != complaint_) say(text);
    complaint_ = text;
}

bool TRegistration::end()
try {
    nextLook_ = Clock::time_point::max();
    asked_ = false;
    daemon_.send(MSG_UNREGISTER, 0, 0, "");
    return true;
} catch (const TCtlError& error) {
    say(std::string("not unregistered: ") + error.what());
    return false;
}
