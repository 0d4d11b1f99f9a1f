// Records of processes, whatever they say, against a daemon; its answers are compared with those of
// a model.
#include <algorithm>
#include <cstring>
#include <optional>

#include "daemon/reset.h"
#include "tests/daemon/daemon_test_bench.h"
#include "tests/fuzz/fuzz_check.h"
#include "tests/fuzz/fuzz_input.h"
#include "tests/fuzz/fuzz_setup.h"

// In place of the daemon's own, which are then not linked in: nothing here restarts anything.
Reset::Reset(ReInit& reInit, std::function<int()> forkWhole) : reInit_(reInit), forkWhole_(std::move(forkWhole)) {}

ResetResult Reset::ask(const char* line, const void* /*asker*/) noexcept
{
    return std::strlen(line) % 2 == 0 ? RESET_STARTED : RESET_REFUSED; // refused by turns
}

void Reset::finishForgotten() noexcept {}

namespace {

struct ModelProc {
    std::string name;
    std::int32_t procId;
};

struct ModelConn {
    const FakeConn* conn;
    std::uint32_t portId; ///< of the connection, which may be gone
    std::uint32_t connId;
    bool serial;
    std::vector<std::string> written;
    int mutes;
};

/// What a daemon without ports but for telnet's does with the messages of processes.
class Model {
public:
    explicit Model(const std::vector<TPortConn*>& conns)
    {
        for (const TPortConn* const conn : conns) {
            const auto* const fake = static_cast<const FakeConn*>(conn);
            conns_.push_back({fake, fake->portId, fake->connId, fake->serial != 0, {}, 0});
        }
    }

    /// @return length of the answer, 0: none
    std::size_t handle(const TOrbAttachmentMsg& msg, std::size_t length)
    {
        switch (msg.kind) {
        case MSG_REPLY:
            write(msg, length);
            return 0;
        case MSG_REGISTER:
            return registerProc(msg);
        case MSG_UNREGISTER:
            return unregisterProc(msg.sender);
        case MSG_CLOSE_ALL:
            conns_.clear();
            return 0;
        case MSG_CLOSE_TELNET:
            closeTelnet();
            return 0;
        case MSG_COM2_WRITE:
            return com2Write(msg, length);
        case MSG_RESET:
            return reset(msg, length);
        default:
            return 0;
        }
    }

    const TOrbAttachmentMsg& answer() const { return answer_; }
    const std::vector<ModelConn>& conns() const { return conns_; }
    const std::vector<ModelProc>& procs() const { return procs_; }

private:
    void write(const TOrbAttachmentMsg& msg, std::size_t length)
    {
        const std::size_t most = std::min(length - MSG_HEADER_BYTES, MSG_TEXT_BYTES - 1);
        for (ModelConn& to : conns_) {
            if (to.connId != (msg.tag & 0xFFFF'0000)) continue;
            to.written.emplace_back(msg.text, ::strnlen(msg.text, most));
            return;
        }
    }

    std::size_t registerProc(const TOrbAttachmentMsg& msg)
    {
        std::uint32_t mask = 0;
        std::memcpy(&mask, msg.text, sizeof mask);
        const std::string name(msg.text + 4, ::strnlen(msg.text + 4, MSG_TEXT_BYTES - 4));
        if (mask == 0) return answerWith(false, "Command register request with nothing enabled");
        const auto known =
            std::find_if(procs_.begin(), procs_.end(), [&](const auto& proc) { return proc.name == name; });
        if (known != procs_.end())
            known->procId = msg.sender;
        else if (procs_.size() == 32)
            return answerWith(false, "Max # of registered processes reached");
        else
            procs_.push_back({name, msg.sender});
        return answerWith(true, "Process register operation successful");
    }

    std::size_t unregisterProc(std::int32_t sender)
    {
        if (procs_.empty()) return answerWith(false, "Registered process list is empty");
        const auto known =
            std::find_if(procs_.begin(), procs_.end(), [&](const auto& proc) { return proc.procId == sender; });
        if (known == procs_.end()) return answerWith(false, "Process not found in registered process list");
        procs_.erase(known);
        return answerWith(true, "Process unregister operation successful");
    }

    std::size_t answerWith(bool success, const std::string& text)
    {
        answer_.kind = MSG_REPLY;
        answer_.tag = success ? 0 : 0xFFFF'FFFF;
        answer_.len = 0;
        std::memcpy(answer_.text, text.data(), text.size());
        return std::strlen(answer_.text) + 17;
    }

    void closeTelnet()
    {
        for (std::size_t i = 0; i < conns_.size();) {
            const bool telnet = conns_[i].portId == PORT_TELNET;
            if (telnet) conns_.erase(conns_.begin() + static_cast<std::ptrdiff_t>(i));
            if (!telnet || i == 0) ++i;
        }
    }

    /// There is no line that could be opened.
    std::size_t com2Write(const TOrbAttachmentMsg& msg, std::size_t length)
    {
        answer_.len = 1;
        answer_.tag = msg.tag;
        for (ModelConn& to : conns_) {
            if (!to.serial) continue;
            ++to.mutes;
            answer_.kind = MSG_REPLY;
            length = MSG_HEADER_BYTES;
        }
        return length;
    }

    std::size_t reset(const TOrbAttachmentMsg& msg, std::size_t length)
    {
        const std::size_t lineLength = ::strnlen(msg.text, MSG_TEXT_BYTES - 1);
        answer_.kind = MSG_REPLY;
        std::strcpy(answer_.text, lineLength % 2 == 0 ? "OK\r\n\r\n" : "Error Processing RESET Command\r\n\r\n");
        return length;
    }

    std::vector<ModelConn> conns_;
    std::vector<ModelProc> procs_;
    TOrbAttachmentMsg answer_{};
};

Outgoing nextRecord(FuzzInput& input)
{
    static constexpr std::uint32_t kinds[] = {MSG_REPLY,      MSG_REGISTER,     MSG_UNREGISTER, MSG_CLOSE_ALL,
                                              MSG_COM2_WRITE, MSG_CLOSE_TELNET, MSG_RESET,      MSG_TEXT,
                                              MSG_REGISTER,   MSG_REPLY};
    static constexpr std::uint32_t tags[] = {0xBB01'0000, 0xAA01'0007, 0xAA02'0000,
                                             0x0056'0000, 0x0057'FFFF, 0xAA03'0001};
    Outgoing out;
    const std::uint8_t choice = input.byte();
    out.record.kind = choice < 240 ? kinds[choice % std::size(kinds)] : input.number<std::uint32_t>();
    // What tells the daemon's state has a check of its own, at the end.
    if (out.record.kind == MSG_STOP || out.record.kind == MSG_STATUS || out.record.kind == MSG_WATCH)
        out.record.kind = MSG_TEXT;
    const std::uint8_t tagChoice = input.byte();
    out.record.tag = tagChoice < 200 ? tags[tagChoice % std::size(tags)] : input.number<std::uint32_t>();
    out.record.sender = input.number<std::int16_t>(); // never believed
    out.record.len = input.number<std::int32_t>();
    if (out.record.kind == MSG_REGISTER) {
        const std::uint32_t mask = input.byte() % 8U;
        std::memcpy(out.record.text, &mask, sizeof mask);
        const std::string name = input.chunk(input.byte() < 16 ? MSG_TEXT_BYTES - 4 : 3);
        std::memcpy(out.record.text + 4, name.data(), name.size());
        out.length = MSG_HEADER_BYTES + 4 + name.size() + input.byte() % 2U;
    } else {
        const std::string text = input.chunk(input.byte() < 16 ? MSG_TEXT_BYTES : 40);
        std::memcpy(out.record.text, text.data(), text.size());
        out.length = MSG_HEADER_BYTES + text.size() + input.byte() % 2U;
    }
    if (input.byte() < 8) out.length = MSG_HEADER_BYTES + out.length % 8;
    out.length = std::min(out.length, MSG_RECORD_BYTES);
    // What does not travel reads as zero.
    std::memset(reinterpret_cast<char*>(&out.record) + out.length, 0, MSG_RECORD_BYTES - out.length);
    return out;
}

/// A daemon with connections of every kind, and two processes.
class Session {
public:
    Session()
    {
        beforeDaemon_.reset(); // a fault is the sanitizer's to report
        bench_.addPort(PORT_TELNET);
        bench_.addConn(PORT_IPC, 0xBB01'0000);
        bench_.addConn(PORT_TELNET, 0xAA01'0000);
        bench_.addConn(PORT_TELNET, 0xAA02'0000);
        bench_.addConn(PORT_COM2, 0x0056'0000).makeSerial();
        bench_.addConn(PORT_XCP, 0x0057'0000);
        bench_.addConn(PORT_TELNET, 0xAA03'0000);
        model_.emplace(bench_.peer.conns());
    }

    void handle(const Outgoing& request, bool fromFirst)
    {
        const QueueProcess& process = fromFirst ? first_ : second_;
        bench_.serve(process, request);
        TOrbAttachmentMsg believed = request.record;
        believed.sender = static_cast<std::int32_t>(process.address());
        const std::size_t length = model_->handle(believed, request.length);

        fuzzCheck((fromFirst ? second_ : first_).receiveAll().empty(), "nobody else gets an answer");
        const auto answers = process.receiveAll();
        fuzzCheck(answers.size() == (length != 0 ? 1 : 0), "a message has one answer or none");
        for (const Received& answer : answers) {
            fuzzCheck(answer.length == length, "the answer has the model's length");
            fuzzCheck(std::memcmp(&answer.record, &model_->answer(), length) == 0, "the answer is the model's");
        }
        checkConns();
        checkRegistry();
    }

    /// Whatever the names are that processes have chosen, each line of the status is the daemon's.
    void checkStatus()
    {
        bench_.serve(first_, message(MSG_STATUS));
        const auto records = first_.receiveAll();
        fuzzCheck(!records.empty(), "the state is told");
        for (const Received& record : records) {
            fuzzCheck(record.record.kind == MSG_STATUS_TEXT && record.text().ends_with('\n'), "in whole lines");
            for (std::string_view text = record.text(); !text.empty(); text.remove_prefix(text.find('\n') + 1))
                checkLine(text.substr(0, text.find('\n')));
        }
    }

private:
    static void checkLine(std::string_view line)
    {
        static constexpr std::string_view words[] = {"daemon ", "count ", "port ", "connection ", "process "};
        fuzzCheck(std::ranges::any_of(words, [&](std::string_view word) { return line.starts_with(word); }),
                  "a line begins with its word");
        fuzzCheck(std::ranges::all_of(line, [](char c) { return c >= ' ' && c <= '~'; }), "it can be printed");
    }

    void checkConns()
    {
        fuzzCheck(bench_.peer.conns().size() == model_->conns().size(), "as many connections are left");
        for (std::size_t i = 0; i < model_->conns().size(); ++i) {
            const ModelConn& expected = model_->conns()[i];
            fuzzCheck(bench_.peer.conns()[i] == expected.conn, "the same connections are left");
            fuzzCheck(expected.conn->written == expected.written, "the same texts were written to them");
            fuzzCheck(expected.conn->mutes == expected.mutes, "the serial line was muted as often");
        }
    }

    void checkRegistry()
    {
        const auto& procs = bench_.peer.regProcs();
        fuzzCheck(procs.size() <= 32, "at most 32 processes are registered");
        fuzzCheck(std::equal(procs.begin(), procs.end(), model_->procs().begin(), model_->procs().end(),
                             [](const TRegisteredProc* proc, const ModelProc& expected) {
                                 return proc->name == expected.name && proc->procId == expected.procId;
                             }),
                  "the registry is the model's");
    }

    std::optional<SignalsRestored> beforeDaemon_{std::in_place};
    DaemonTestBench bench_;
    QueueProcess first_{bench_.directory, 2001};
    QueueProcess second_{bench_.directory, 2002};
    std::optional<Model> model_;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    needNamespaces();
    FuzzInput input(data, size);
    Session session;
    for (int records = 0; !input.empty() && records < 200; ++records) {
        const bool fromFirst = input.byte() % 4 != 0;
        session.handle(nextRecord(input), fromFirst);
    }
    session.checkStatus();
    return 0;
}
