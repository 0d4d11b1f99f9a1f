#include "tools/tessctl/registration.h"

#include <utility>

#include "framework/tess_messages.h"
#include "tools/tessctl/exit_status.h"
#include "tools/tessctl/record_text.h"
#include "tools/tessctl/registry_answer.h"
#include "tools/tessctl/say.h"

namespace {

constexpr std::chrono::seconds BETWEEN_LOOKS{1};
constexpr std::chrono::seconds BETWEEN_RENEWALS{10};
constexpr std::chrono::seconds BETWEEN_COMMANDS{1}; // after that long without one, the next is not about to come
constexpr const char* TAKER = "'tessctl listen --take-over'";

} // namespace

bool Registration::FileMark::changed() const
{
    struct stat now {};
    if (::stat(path_.c_str(), &now) != 0) return false;
    return now.st_ino != seen_.st_ino || now.st_ctim.tv_sec != seen_.st_ctim.tv_sec ||
           now.st_ctim.tv_nsec != seen_.st_ctim.tv_nsec;
}

Registration::Registration(DaemonClient& daemon, std::string name, std::uint32_t ports, Keep keep)
    : daemon_(daemon), name_(std::move(name)), ports_(ports), keep_(keep), claim_(name_),
      daemonMark_(queuePath(TESS_QUEUE_ID)), directoryMark_(queueDirectory())
{
    if (keep_ != Keep::takeOver && claim_.taken())
        throw CtlError(
            STATUS_REFUSED,
            name_ + " is taken: another tessctl serves it or listens under it; " +
                (keep_ == Keep::renewed ? "end that one first" : "--take-over takes its commands until this one ends"));
    claim_.hold(keep_ == Keep::takeOver);
    daemon_.registerAs(name_, ports_);
    nextLook_ = Clock::now();
    nextRenewal_ = nextLook_ + BETWEEN_RENEWALS;
}

std::size_t Registration::receive(TOrbAttachmentMsg& record)
{
    const std::size_t bytes = daemon_.receive(record);
    const auto now = Clock::now();
    if (bytes > 0 && record.sender == TESS_QUEUE_ID) {
        if (record.kind == MSG_TEXT) lastCommand_ = now;
        if (record.kind == MSG_REPLY) onReply(record);
    }
    if (now >= nextLook_) look(now);
    return bytes;
}

void Registration::look(Clock::time_point now)
{
    nextLook_ = now + BETWEEN_LOOKS;
    if (keep_ == Keep::renewed) lookForOthers();
    if (daemonMark_.changed() && queueError(TESS_QUEUE_ID) == 0) { // before that it is not ready yet
        daemonMark_.see();
        missing_ = Missing::atNewDaemon;
        asked_ = false; // what an earlier tessd was asked is nothing to this one
        unregistersDue_ = 0;
    }
    if (aside_) return;
    if (asked_ && now < askedAt_ + DaemonClient::REPLY_PATIENCE) return;
    if (missing_ != Missing::no)
        ask(false);
    else if (keep_ == Keep::renewed && now >= nextRenewal_)
        renew(now);
}

void Registration::lookForOthers()
{
    const bool aside = claim_.takenOver();
    if (aside && !aside_) say(name_ + " was taken over by " + TAKER + ": it gets no commands until that has ended");
    if (!aside && aside_ && missing_ == Missing::no) missing_ = Missing::takenOver;
    aside_ = aside;
}

/// When a name is registered again, tessd's answer does not tell whether another process had it
/// meanwhile. Its answer to unregistering does: that is refused to a process that has nothing
/// registered. But for a moment then nobody has the name, and a command would be missed. So this is
/// done only where there is a reason for suspicion, that a process has come or gone or that the
/// name was lost before, and not shortly after a command, which besides shows that the name is not
/// lost.
void Registration::renew(Clock::time_point now)
{
    nextRenewal_ = now + BETWEEN_RENEWALS;
    suspicious_ = suspicious_ || directoryMark_.changed();
    const bool whetherReplaced = suspicious_ && now >= lastCommand_ + BETWEEN_COMMANDS;
    if (whetherReplaced) directoryMark_.see();
    ask(whetherReplaced);
}

void Registration::ask(bool whetherReplaced)
try {
    if (whetherReplaced) unregister();
    daemon_.askToRegister(name_, ports_);
    asked_ = true;
    askedAt_ = Clock::now();
} catch (const CtlError& error) {
    if (missing_ == Missing::no) missing_ = Missing::notAsked;
    complain(std::string("not registered again: ") + error.what());
}

void Registration::unregister()
{
    daemon_.send(MSG_UNREGISTER, 0, 0, "");
    ++unregistersDue_;
}

void Registration::onReply(const TOrbAttachmentMsg& record)
{
    const bool done = record.tag == 0;
    if (answersUnregistering(textOf(record))) {
        if (unregistersDue_ > 0) --unregistersDue_;
        suspicious_ = !done;
        if (!done && missing_ == Missing::no) missing_ = Missing::replaced;
        return;
    }
    if (!asked_) return;
    asked_ = false;
    if (done) return onRegistered();
    if (missing_ == Missing::no) missing_ = Missing::notAsked;
    complain(refusalText(name_, textOf(record)) + "; it is asked again every second");
}

void Registration::onRegistered()
{
    complaint_.clear();
    switch (std::exchange(missing_, Missing::no)) {
    case Missing::no:
        return;
    case Missing::atNewDaemon:
        return say("tessd was started anew, " + name_ + " has registered again");
    case Missing::takenOver:
        return say(name_ + " is back: " + TAKER + " has ended");
    case Missing::replaced:
        return say(name_ + " was taken by another process, and is back: that one gets no commands now");
    case Missing::notAsked:
        return say(name_ + " has registered again");
    }
}

void Registration::complain(const std::string& text)
{
    if (text != complaint_) say(text);
    complaint_ = text;
}

bool Registration::end()
try {
    nextLook_ = Clock::time_point::max();
    asked_ = false;
    unregister();
    claim_.release();
    return true;
} catch (const CtlError& error) {
    say(std::string("not unregistered: ") + error.what());
    return false;
}
