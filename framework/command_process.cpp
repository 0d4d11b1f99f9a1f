// Uses only what the headers of framework/ declare, and nothing of framework/bundled/, so that it
// can be linked with any library that implements those headers.
#include "framework/command_process.h"

#include <array>
#include <csignal>
#include <cstring>
#include <exception>
#include <span>
#include <unistd.h>
#include <utility>

#include "framework/fixed_text.h"
#include "framework/log_message.h"
#include "framework/queue_mgr.h"
#include "framework/reply_text.h"

namespace {

constexpr timeval REGISTER_EVERY{10, 0};
constexpr timeval ASK_EVERY{1, 0}; // while tessd is not there
constexpr timeval LEAVE_WITHIN{2, 0};
constexpr unsigned MOST_STOP_SECONDS = 5;

constexpr LogMessage<Text> registeredAs{250021, "registered at tessd as {}"};
constexpr LogMessage waitingForTessd{250022, "tessd is not there, asking again every second"};
constexpr LogMessage<Text> refusedByTessd{250023, "tessd refused: {}"};
constexpr LogMessage answerLost{250024, "an answer did not reach tessd"};
constexpr LogMessage queueFailed{250025, "cannot receive from the queue"};
constexpr LogMessage notUnregistered{250026, "tessd is not there, nothing to unregister from"};

volatile std::sig_atomic_t stopRequested = 0;

extern "C" void requestStop(int)
{
    // A tessd that is halted with a full queue would keep us waiting for room: then SIGALRM ends
    // this process.
    if (stopRequested == 0) ::alarm(MOST_STOP_SECONDS);
    stopRequested = 1;
}

/// While it lives, SIGTERM and SIGINT ask for a stop.
class StopSignals {
public:
    StopSignals()
    {
        stopRequested = 0;
        struct sigaction stop {};
        struct sigaction end {};
        stop.sa_handler = requestStop;
        end.sa_handler = SIG_DFL;
        for (std::size_t i = 0; i < NUMBERS.size(); ++i)
            (void)::sigaction(NUMBERS[i], NUMBERS[i] == SIGALRM ? &end : &stop, &before_[i]);
    }
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;
    ~StopSignals()
    {
        for (std::size_t i = 0; i < NUMBERS.size(); ++i)
            if (NUMBERS[i] != SIGALRM) (void)::sigaction(NUMBERS[i], &before_[i], nullptr);
        if (stopRequested != 0) ::alarm(0);
        (void)::sigaction(SIGALRM, &before_[ALARM], nullptr);
    }

private:
    static constexpr std::size_t ALARM = 2;
    static constexpr std::array NUMBERS{SIGTERM, SIGINT, SIGALRM};
    std::array<struct sigaction, NUMBERS.size()> before_{};
};

/// The text of a record; one without a NUL ends at the record's end.
std::string_view textOf(const TOrbAttachmentMsg& record)
{
    return {record.text, ::strnlen(record.text, sizeof record.text)};
}

/// A command without the LF that it travels with.
std::string_view lineOf(const TOrbAttachmentMsg& record)
{
    const std::string_view text = textOf(record);
    return text.substr(0, text.find_last_not_of("\r\n") + 1);
}

} // namespace

CommandProcess::CommandProcess(long queueId, std::string_view name, std::uint32_t ports, AnswerTo answerTo)
    : TMsgDmn(queueId, true), name_(name), ports_(ports), answerTo_(std::move(answerTo))
{
}

int CommandProcess::run()
{
    const StopSignals signals;
    while (stopRequested == 0 && standing_ != Standing::refused) {
        if (untilRegistration_.hasTimedOut()) registerWithTessd();
        if (!serveOne()) return 1;
    }
    if (standing_ == Standing::refused) return 1;
    unregister();
    return 0;
}

void CommandProcess::registerWithTessd()
{
    std::memcpy(out_.text, &ports_, sizeof ports_);
    const std::size_t nameBytes = putText(std::span(out_.text).subspan(sizeof ports_), name_) + 1;
    if (send(MSG_REGISTER, 0, sizeof ports_ + nameBytes)) {
        repliesDue_ = 1; // what tessd has not answered by now it never will
        untilRegistration_.setTimeOut(REGISTER_EVERY);
        return;
    }
    if (standing_ != Standing::waiting) logMessage(waitingForTessd);
    standing_ = Standing::waiting;
    untilRegistration_.setTimeOut(ASK_EVERY);
}

void CommandProcess::unregister()
{
    if (!send(MSG_UNREGISTER, 0, 0)) {
        logMessage(notUnregistered);
        return;
    }
    ++repliesDue_;
    // Commands that tessd forwarded before it read this request still want an answer. They arrive
    // before tessd's reply to the request, which therefore ends the wait.
    const TOrbHRTimeOut patience(LEAVE_WITHIN);
    while (repliesDue_ > 0 && !patience.hasTimedOut() && serveOne()) {
    }
}

bool CommandProcess::serveOne()
{
    const long received = g_qMgr.getMsg(&in_, MSG_QUEUE_ALL, true);
    if (received < 0) {
        logMessage(queueFailed);
        return false;
    }
    if (received == 0 || in_.sender != TESS_QUEUE_ID) return true; // nobody else gives orders here
    if (in_.kind == MSG_TEXT) answer(lineOf(in_));
    if (in_.kind == MSG_REPLY) onReply();
    return true;
}

void CommandProcess::onReply()
{
    if (repliesDue_ > 0) --repliesDue_;
    if (in_.tag != 0) {
        standing_ = Standing::refused;
        logMessage(refusedByTessd, std::string(textOf(in_)).c_str());
    } else if (standing_ != Standing::registered) {
        standing_ = Standing::registered;
        onRegistered();
    }
}

void CommandProcess::onRegistered()
{
    logMessage(registeredAs, name_.c_str());
    if (!std::exchange(announced_, true)) logMgr.initAfterDaemonize();
}

void CommandProcess::answer(std::string_view command)
{
    const std::string reply = replyTo(command);
    // The tag names the connection that asked: it goes back as it came.
    for (const std::string_view part : replyMessages(reply)) {
        if (send(MSG_REPLY, in_.tag, putText(out_.text, part) + 1)) continue;
        logMessage(answerLost);
        return;
    }
}

std::string CommandProcess::replyTo(std::string_view command) const
try {
    return replyText(answerTo_(command), "");
} catch (const std::exception& failure) {
    return replyText("", *failure.what() == '\0' ? "the command failed" : failure.what());
}

bool CommandProcess::send(std::uint32_t kind, std::uint32_t tag, std::size_t textBytes)
{
    out_.kind = kind;
    out_.sender = 0; // the receiving queue fills it in
    out_.tag = tag;
    out_.len = 0;
    const auto length = static_cast<long>(MSG_HEADER_BYTES + textBytes);
    // Waits while tessd's queue is full, however long tessd is busy: an answer is not to be lost.
    // The two cannot lock each other up: commands that arrive meanwhile are kept for getMsg().
    return g_qMgr.sendMsg(TESS_QUEUE_ID, &out_, length, true) == SEND_DONE;
}
