#include "examples/encoder/encoder.h"

#include "framework/fixed_text.h"
#include "framework/log_mgr.h"
#include "framework/queue_mgr.h"
#include "framework/tess_messages.h"
#include "framework/tokenizer.h"

#include <charconv>
#include <cstring>
#include <span>
#include <system_error>

namespace {

constexpr std::string_view PROCESS_NAME = "ENC";
constexpr std::uint32_t ALL_PORTS = PORT_COM2 | PORT_TELNET | PORT_XCP | PORT_IPC;

constexpr timeval REGISTER_EVERY{10, 0};
constexpr timeval ASK_EVERY{1, 0}; // while tessd is not there
constexpr timeval LEAVE_WITHIN{2, 0};

enum EncoderTrace : TTraceMsg {
    TRACE_REGISTERED = 60001,
    TRACE_WAITING = 60002,
    TRACE_REFUSED = 60003,
    TRACE_ANSWER_LOST = 60004,
    TRACE_QUEUE_FAILED = 60005,
    TRACE_NOT_UNREGISTERED = 60006,
};

/// The text of a record; one without a NUL ends at the record's end.
std::string_view textOf(const TOrbAttachmentMsg& record)
{
    return {record.text, ::strnlen(record.text, sizeof record.text)};
}

/// @return whether the whole of `word` is a decimal number that fits; `number` is set only then
bool readNumber(std::string_view word, int& number)
{
    int value = 0;
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
    if (error != std::errc{} || end != word.data() + word.size()) return false;
    number = value;
    return true;
}

} // namespace

TEncoder::TEncoder(long queueId, const volatile std::sig_atomic_t& stop) : TMsgDmn(queueId, true), stop_(stop) {}

int TEncoder::run()
{
    while (stop_ == 0 && standing_ != Standing::refused) {
        if (untilRegistration_.hasTimedOut()) registerWithTessd();
        if (!serveOne()) return 1;
    }
    if (standing_ == Standing::refused) return 1;
    unregister();
    return 0;
}

void TEncoder::registerWithTessd()
{
    std::memcpy(out_.text, &ALL_PORTS, sizeof ALL_PORTS);
    const std::size_t nameBytes = putText(std::span(out_.text).subspan(sizeof ALL_PORTS), PROCESS_NAME) + 1;
    if (send(MSG_REGISTER, 0, sizeof ALL_PORTS + nameBytes)) {
        repliesDue_ = 1; // answers to earlier requests that have not come by now never will
        untilRegistration_.setTimeOut(REGISTER_EVERY);
        return;
    }
    if (standing_ != Standing::waiting) logMgr.log(TRACE_WAITING, "tessd is not there, asking again every second");
    standing_ = Standing::waiting;
    untilRegistration_.setTimeOut(ASK_EVERY);
}

void TEncoder::unregister()
{
    if (!send(MSG_UNREGISTER, 0, 0)) {
        logMgr.log(TRACE_NOT_UNREGISTERED, "tessd is not there, nothing to unregister from");
        return;
    }
    ++repliesDue_;
    // What tessd forwarded before it read this still wants its answer; tessd's reply comes behind it.
    const TOrbHRTimeOut patience(LEAVE_WITHIN);
    while (repliesDue_ > 0 && !patience.hasTimedOut() && serveOne()) {
    }
}

bool TEncoder::serveOne()
{
    const long received = g_qMgr.getMsg(&in_, MSG_QUEUE_ALL, true);
    if (received < 0) {
        logMgr.log(TRACE_QUEUE_FAILED, "cannot receive from the queue");
        return false;
    }
    if (received == 0 || in_.sender != TESS_QUEUE_ID) return true; // nobody else gives orders here
    if (in_.kind == MSG_TEXT) answer(textOf(in_));
    if (in_.kind == MSG_REPLY) onReply();
    return true;
}

void TEncoder::onReply()
{
    if (repliesDue_ > 0) --repliesDue_;
    if (in_.tag != 0) {
        standing_ = Standing::refused;
        logMgr.log(TRACE_REFUSED, (FixedText<256>() << "tessd refused: " << textOf(in_)).c_str());
    } else if (standing_ != Standing::registered) {
        standing_ = Standing::registered;
        logMgr.log(TRACE_REGISTERED, (FixedText<80>() << "registered at tessd as " << PROCESS_NAME).c_str());
    }
}

void TEncoder::answer(std::string_view command)
{
    stringTokenizer(command, words_, " \t\r\n");
    FixedText<32> text;
    if (words_.size() == 1 && words_[0] == "GETX") {
        text << position_ << "\r\n\r\n";
    } else if (words_.size() == 2 && words_[0] == "SETX" && readNumber(words_[1], position_)) {
        text << "0\r\n\r\n";
    } else {
        text << "?\r\n";
    }
    // The tag names the connection that asked: it goes back as it came.
    if (!send(MSG_REPLY, in_.tag, putText(out_.text, text.view()) + 1)) {
        logMgr.log(TRACE_ANSWER_LOST, "an answer did not reach tessd");
    }
}

bool TEncoder::send(std::uint32_t kind, std::uint32_t tag, std::size_t textBytes)
{
    out_.kind = kind;
    out_.sender = 0; // the receiving queue fills it in
    out_.tag = tag;
    out_.len = 0;
    const auto length = static_cast<long>(MSG_HEADER_BYTES + textBytes);
    // Waits while tessd's queue is full, however long tessd is busy: an answer is not to be lost. The two cannot lock each
    // other up: commands that arrive meanwhile are kept for getMsg().
    return g_qMgr.sendMsg(TESS_QUEUE_ID, &out_, length, true) == 0;
}
