// Processes that register, unregister, change their masks, die and come back, and commands from all
// kinds of port in between: who gets a command, and what the client is told, is compared with a
// model.
#include <algorithm>
#include <array>
#include <cstring>
#include <optional>

#include "common/text.h"
#include "tests/daemon/daemon_test_bench.h"
#include "tests/fuzz/fuzz_check.h"
#include "tests/fuzz/fuzz_clock.h"
#include "tests/fuzz/fuzz_input.h"
#include "tests/fuzz/fuzz_setup.h"
#include "tests/support/address_rules.h"

namespace {

constexpr std::size_t PROCESSES = 4;
constexpr std::size_t KINDS = 4;
constexpr std::array<std::uint32_t, KINDS> PORT_TYPES{PORT_IPC, PORT_XCP, PORT_TELNET, PORT_COM2};
constexpr std::array<std::uint32_t, KINDS> CONN_IDS{0xBB01'0000, 0x0057'0000, 0xAA01'0000, 0x0056'0000};

struct Entry {
    std::string name;
    std::size_t process;
    std::uint32_t mask;
};

bool isSame(const std::string& a, const std::string& b)
{
    return std::ranges::equal(a, b,
                              [](unsigned char x, unsigned char y) { return std::tolower(x) == std::tolower(y); });
}

struct Commands {
    std::array<std::vector<std::string>, PROCESSES> received; ///< by each process
    std::vector<std::string> replies;
};

class Model {
public:
    /// @return whether the daemon says yes
    bool registerProc(std::size_t process, std::uint32_t mask, const std::string& name)
    {
        if (mask == 0) return false;
        const auto known = std::ranges::find(entries_, name, &Entry::name);
        if (known != entries_.end()) {
            *known = {name, process, mask};
            return true;
        }
        if (entries_.size() == 32) return false;
        entries_.push_back({name, process, mask});
        return true;
    }

    bool unregisterProc(std::size_t process)
    {
        const auto known = std::ranges::find(entries_, process, &Entry::process);
        if (known == entries_.end()) return false;
        entries_.erase(known);
        return true;
    }

    Commands command(const std::string& token, std::uint32_t portType, const std::array<bool, PROCESSES>& lives) const
    {
        Commands result;
        if (token.empty()) return result;
        const AddressByRules address = addressByRules(token);
        if (address.result == 0) {
            result.replies = {"?\r\n"};
            return result;
        }
        if (address.result == 1 && address.unit.starts_with("*") && !address.process.starts_with("*")) {
            result.replies = {"0\r\n\r\n"};
            return result;
        }
        const std::string body = address.result > 1 ? token.substr(static_cast<std::size_t>(address.result)) : token;
        bool lastGotIt = false;
        for (const Entry& entry : entries_) {
            if ((entry.mask & portType) == 0 || !isMeant(entry, address)) continue;
            lastGotIt = lives[entry.process];
            if (lastGotIt) result.received[entry.process].push_back(body + "\n");
        }
        if (!lastGotIt) result.replies = {"?\r\n"};
        return result;
    }

private:
    static bool isMeant(const Entry& entry, const AddressByRules& address)
    {
        if (!isSame(address.unit, "s3") && address.unit != "*") return false;
        return isSame(entry.name, address.process) || (address.process == "*" && !isSame(entry.name, "GPSD"));
    }

    std::vector<Entry> entries_;
};

class Session {
public:
    Session()
    {
        beforeDaemon_.reset(); // a fault is the sanitizer's to report
        for (std::size_t i = 0; i < KINDS; ++i)
            conns_[i] = &bench_.addConn(PORT_TYPES[i], CONN_IDS[i]);
        for (std::size_t i = 0; i < PROCESSES; ++i)
            begin(i);
    }

    void begin(std::size_t i)
    {
        if (!lives_[i]) processes_[i].emplace(bench_.directory, 2001 + static_cast<long>(i));
        lives_[i] = true;
    }

    /// @param leavesFile  as after a crash
    void end(std::size_t i, bool leavesFile)
    {
        if (leavesFile && lives_[i]) processes_[i]->die();
        if (!leavesFile) processes_[i].reset();
        lives_[i] = false;
    }

    void registerProc(std::size_t i, std::uint32_t mask, const std::string& name)
    {
        if (!lives_[i]) return;
        const bool accepted = model_.registerProc(i, mask, name.c_str());
        checkAnswer(i, registration(mask, name), accepted);
    }

    void unregisterProc(std::size_t i)
    {
        if (lives_[i]) checkAnswer(i, message(MSG_UNREGISTER), model_.unregisterProc(i));
    }

    void command(std::size_t kind, std::uint16_t tag, const std::string& text)
    {
        const std::string token = plainToken(text);
        FakeConn& conn = *conns_[kind];
        conn.written.clear();
        conn.tag = tag;
        conn.willRead({token});
        Commands got;
        do {
            bench_.peer.serve();
            takeRecords(got, conn.connId | tag);
            clock_.pass(std::chrono::milliseconds(20));
        } while (conn.progress.waits());
        got.replies = conn.written;
        const Commands expected = model_.command(token, PORT_TYPES[kind], lives_);
        fuzzCheck(got.received == expected.received, "the right processes get the command");
        fuzzCheck(got.replies == expected.replies, "the client is told what the rules give");
    }

private:
    /// One command that only the registry decides about.
    static std::string plainToken(const std::string& text)
    {
        std::string line = text.substr(0, 1000);
        std::erase_if(line, [](char c) { return c == '\0' || c == '\r' || c == '\n' || c == '|'; });
        std::string token(trimmed(line));
        for (const char* const word : {"RESET", "DELAY", "quit"})
            if (beginsWithNoCase(token, word)) token.insert(0, "x");
        return token;
    }

    void takeRecords(Commands& got, std::uint32_t tag)
    {
        for (std::size_t i = 0; i < PROCESSES; ++i) {
            if (!lives_[i]) continue;
            for (const Received& record : processes_[i]->receiveAll()) {
                fuzzCheck(record.record.kind == MSG_TEXT && record.record.tag == tag, "a command has kind and tag");
                got.received[i].emplace_back(record.text());
            }
        }
    }

    void checkAnswer(std::size_t i, const Outgoing& request, bool accepted)
    {
        bench_.serve(*processes_[i], request);
        const std::vector<Received> answers = processes_[i]->receiveAll();
        fuzzCheck(answers.size() == 1, "a request has one answer");
        fuzzCheck(answers[0].record.tag == (accepted ? 0 : 0xFFFF'FFFF), "it is accepted when the rules say so");
    }

    FuzzClock clock_;
    std::optional<SignalsRestored> beforeDaemon_{std::in_place};
    DaemonTestBench bench_;
    std::array<FakeConn*, KINDS> conns_{};
    std::array<std::optional<QueueProcess>, PROCESSES> processes_;
    std::array<bool, PROCESSES> lives_{};
    Model model_;
};

std::string nameFrom(FuzzInput& input)
{
    static const std::string names[] = {"ENC", "enc", "GPSD", "gpsd", "*", "s3", "", "A"};
    const std::uint8_t choice = input.byte();
    return choice < 192 ? names[choice % std::size(names)] : input.take(choice % 8U);
}

std::uint32_t maskFrom(FuzzInput& input)
{
    static constexpr std::uint32_t masks[] = {15, 1, 2, 4, 8, 16, 0, 0xFFFF'FFFF};
    const std::uint8_t choice = input.byte();
    return choice < 240 ? masks[choice % std::size(masks)] : input.number<std::uint32_t>();
}

void act(Session& session, std::uint8_t choice, FuzzInput& input)
{
    const std::size_t whom = choice >> 3U; // a process, or a kind of port
    switch (choice & 7U) {
    case 0:
    case 1: {
        const std::uint32_t mask = maskFrom(input);
        session.registerProc(whom % PROCESSES, mask, nameFrom(input));
        break;
    }
    case 2:
        session.unregisterProc(whom % PROCESSES);
        break;
    case 3:
        session.end(whom % PROCESSES, choice >= 128);
        break;
    case 4:
        session.begin(whom % PROCESSES);
        break;
    case 5: {
        const std::string target = nameFrom(input);
        session.command(whom % KINDS, input.byte(), "s3." + target + " SETX 5");
        break;
    }
    default: {
        const std::uint16_t tag = input.number<std::uint16_t>();
        session.command(whom % KINDS, tag, input.chunk(choice >= 128 ? 1000 : 24));
    }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    needNamespaces();
    FuzzInput input(data, size);
    Session session;
    for (int actions = 0; !input.empty() && actions < 150; ++actions) {
        const std::uint8_t choice = input.byte();
        act(session, choice, input);
    }
    return 0;
}
