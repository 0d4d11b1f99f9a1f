// Two telnet clients that log in side by side, whatever they type and however time passes. What a
// plain client is told is compared with a model; of one with LINEMODE it is only asked that nobody
// gets in without the words.
#include "connections/login.h"

#include <array>
#include <memory>

#include "common/white_space.h"
#include "connections/telnet_conn.h"
#include "tests/fuzz/fuzz_check.h"
#include "tests/fuzz/fuzz_clock.h"
#include "tests/fuzz/fuzz_input.h"
#include "tests/fuzz/fuzz_setup.h"
#include "tests/fuzz/held_threads.h"
#include "tests/support/line_rules.h"
#include "tests/support/passwd_file.h"
#include "tests/support/stream_pair.h"

namespace {

/// Hashes that are quickly made: alice has the password "secret", bob "geheim".
constexpr const char* USERS = "root:$1$abcdefgh$pK0Bp1VYQIo78LEcSA7zK0:0:0:root:/root:/bin/sh\n"
                              "alice:$1$abcdefgh$cHJi5PXp/ki/ktXzqlk6I1:1001:1002:Alice:/home/alice:/bin/sh\n"
                              "bob:$1$abcdefgh$eKehL.s8tG6zTf8hBtmEF.:1003:1003::/home/bob:/bin/sh\n"
                              "nobody:*:65534:65534::/nonexistent:/bin/false\n";

constexpr std::chrono::seconds LOGIN_TIME{60};
constexpr std::size_t LONGEST = 256;

/// What becomes of a login of a plain client, written down step by step.
class Expected {
public:
    enum State { fresh, name, password, verdict, done, failed };

    void type(const std::string& bytes) { pending_ += bytes; }
    void close() { closed_ = true; }
    void endCheck() { checked_ = true; }

    void step(std::string& lastName, std::chrono::milliseconds now)
    {
        if (state == fresh) {
            sent += "\r\nMarvo Resident Telnet Server...\r\nUserName:\r\n";
            state = name;
            return;
        }
        if (state == verdict && checked_) return judge();
        if (now >= LOGIN_TIME) return fail();
        if (state == verdict) return;
        std::string line;
        if (!read(line)) return;
        if (state == name) {
            lastName = line;
            sent += "PassWord:\r\n";
            echo_ = false;
            state = password;
            return;
        }
        if (lastName == "root") return fail();
        user_ = lastName;
        accepted_ = (user_ == "alice" && line == "secret") || (user_ == "bob" && line == "geheim");
        checked_ = false;
        state = verdict;
    }

    State state = fresh;
    std::string sent;

private:
    /// @return false when there is no line; then it may have failed
    bool read(std::string& line)
    {
        if (pending_.empty() && closed_) fail();
        const std::string seen = pending_.substr(0, TPortConn::RX_BYTES);
        if (echo_ && seen.size() > echoed_) {
            sent += seen.substr(echoed_);
            echoed_ = seen.size();
        }
        if (seen.find_first_of("\r\n") == std::string::npos) return false;
        pending_.erase(0, seen.size());
        echoed_ = 0;
        const std::vector<std::string> lines = linesByRules(seen, false);
        if (lines.empty()) return false;
        if (seen.size() > LONGEST) {
            fail();
            return false;
        }
        line = isWhiteSpace(seen[0]) ? "" : lines[0];
        return true;
    }

    void judge()
    {
        if (!accepted_) return fail();
        sent += "User " + user_ + " connected\r\n";
        state = done;
    }

    void fail()
    {
        sent += "\r\n";
        state = failed;
    }

    std::string pending_;
    std::string user_;
    std::size_t echoed_ = 0;
    bool closed_ = false;
    bool echo_ = true;
    bool checked_ = false;
    bool accepted_ = false;
};

class Client {
public:
    explicit Client(bool lineMode)
    {
        conn_.fd = pair_.releaseServer();
        conn_.lineMode = lineMode ? 1 : 0;
        if (!lineMode) conn_.setEcho(1);
    }

    void type(const std::string& bytes)
    {
        if (closed_ || bytes.empty() || !pair_.send(bytes)) return;
        typed_ += bytes;
        expected_.type(bytes);
    }

    void close()
    {
        ::shutdown(pair_.client(), SHUT_WR);
        closed_ = true;
        expected_.close();
    }

    void endCheck() { expected_.endCheck(); }

    void step(TOrbAttachmentMsg& message, UserName& userName, std::string& lastName, std::chrono::milliseconds now)
    {
        if (over_ || conn_.loginState == LOGIN_DONE) return;
        over_ = !loginStep(conn_, message, userName);
        received_ += pair_.received();
        if (conn_.lineMode != 0) return checkWords();
        expected_.step(lastName, now);
        fuzzCheck(over_ == (expected_.state == Expected::failed), "a login fails when the rules say so");
        fuzzCheck((conn_.loginState == LOGIN_DONE) == (expected_.state == Expected::done),
                  "a login succeeds when the rules say so");
        fuzzCheck(received_ == expected_.sent, "the client is told what the rules give");
    }

private:
    void checkWords() const
    {
        if (conn_.loginState != LOGIN_DONE) return;
        const auto typed = [&](const char* word) { return typed_.find(word) != std::string::npos; };
        const bool knows = (typed("alice") && typed("secret")) || (typed("bob") && typed("geheim"));
        fuzzCheck(knows, "nobody gets in without name and password");
    }

    StreamPair pair_;
    TTelnetConn conn_{2, 0xAA01'0000};
    Expected expected_;
    std::string typed_;
    std::string received_;
    bool closed_ = false;
    bool over_ = false;
};

/// Both clients, and the time that passes for them.
class Session {
public:
    explicit Session(std::uint8_t modes)
        : clients_{std::make_unique<Client>((modes & 3) == 1), std::make_unique<Client>((modes & 12) == 4)}
    {
    }

    void act(std::uint8_t choice, FuzzInput& input)
    {
        Client& client = *clients_[choice & 1U];
        switch (choice >> 1U & 7U) {
        case 0:
            HeldThreads::run();
            for (const auto& each : clients_)
                each->endCheck();
            break;
        case 1: // no sum of these is 60 s, so that nothing happens at the very moment
            clock_.pass(std::chrono::milliseconds(7 * input.number<std::uint16_t>() + 7));
            break;
        case 2:
            client.close();
            break;
        case 3:
            client.type(input.chunk(1100));
            break;
        default:
            client.type(input.take(input.byte() % 16U));
        }
        for (int steps = choice >> 6U; steps >= 0; --steps)
            for (const auto& each : clients_)
                each->step(message_, userName_, lastName_, clock_.elapsed());
    }

private:
    FuzzClock clock_;
    std::array<std::unique_ptr<Client>, 2> clients_;
    TOrbAttachmentMsg message_{};
    UserName userName_{};
    std::string lastName_; ///< as the model has it
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    needNamespaces();
    static const PasswdFile passwords(USERS);
    FuzzInput input(data, size);
    Session session(input.byte());
    for (int actions = 0; !input.empty() && actions < 100; ++actions) {
        const std::uint8_t choice = input.byte();
        session.act(choice, input);
    }
    HeldThreads::forget();
    return 0;
}
