#include "connections/telnet_conn.h"

#include <memory>
#include <optional>

#include "tests/fuzz/fuzz_check.h"
#include "tests/fuzz/fuzz_input.h"
#include "tests/support/line_rules.h"
#include "tests/support/stream_pair.h"

using namespace std::string_literals;

namespace {

const std::string OFFERS = "\xFF\xFD\x03\xFF\xFD\x22";
const std::string MODE_AND_SLC = "\xFF\xFA\x22\x01\x01\xFF\xF0\xFF\xFA\x22\x03\x11\x02\x0D\x12\x02\x0D\xFF\xF0";

/// Ends whatever an input has begun, so that no time has to pass: the last byte is data.
const std::string TAIL = "xx\xFF\xF0xxx";

/// So short that no sub-negotiation is longer than the reader's buffer, which only time would end.
constexpr std::size_t MOST_COMMAND_BYTES = 900;

/// What a negotiation comes to, followed command by command and without regard to speed.
class Expected {
public:
    explicit Expected(std::string input) : rest(std::move(input)) {}

    void negotiate()
    {
        std::optional<std::string> command = next();
        if (!command) {
            echo = true;
            return;
        }
        sent += OFFERS;
        for (; command; command = next()) {
            if (command->size() == 3) {
                take(*command);
                continue;
            }
            if ((*command)[2] == '\x22') negotiateLinemode(*command);
            break;
        }
        echo = !linemode;
    }

    void switchEcho(bool on)
    {
        if (!linemode) {
            echo = on;
            return;
        }
        sent += on ? "\xFF\xFC\x01" : "\xFF\xFB\x01";
        const std::string answer = on ? "\xFF\xFE\x01" : "\xFF\xFD\x01";
        for (std::optional<std::string> command = next(); command && *command != answer;)
            command = next();
    }

    std::string rest; ///< what is not consumed
    std::string sent; ///< by the server
    bool linemode = false;
    bool echo = false;

private:
    std::optional<std::string> next()
    {
        if (rest.empty() || rest[0] != '\xFF') return std::nullopt;
        std::size_t length = 3;
        if (rest[1] == '\xFA') length = rest.find("\xFF\xF0", 2) + 2;
        const std::string command = rest.substr(0, length);
        rest.erase(0, length);
        return command;
    }

    void take(const std::string& command)
    {
        const char verb = command[1];
        const char option = command[2];
        if (option == '\x22' && verb == '\xFB') linemode = true;
        if (option == '\x22' || option == '\x01' || option == '\x03') return;
        if (verb == '\xFB' || verb == '\xFD') sent += "\xFF\xFC"s + option;
    }

    void negotiateLinemode(const std::string& first)
    {
        sent += MODE_AND_SLC;
        bool mode = false;
        bool forw1 = false;
        bool forw2 = false;
        for (std::optional<std::string> command = first; command; command = next()) {
            if (command->size() == 3) {
                take(*command);
            } else if ((*command)[2] == '\x22' && command->size() > 6) {
                const std::string& bytes = *command;
                if (bytes[3] == '\x01' && (bytes[4] & 5) == 5) mode = true;
                for (std::size_t i = 4; bytes[3] == '\x03' && i < bytes.size() - 2; i += 3) {
                    const bool asked = (bytes[i + 1] & 2) != 0 && bytes[i + 2] == '\r';
                    if (asked && bytes[i] == '\x11') forw1 = true;
                    if (asked && bytes[i] == '\x12') forw2 = true;
                }
            }
            if (mode && forw1 && forw2) break;
        }
    }
};

/// A client and its connection.
class Session {
public:
    explicit Session(const std::string& commands) : expected_(commands)
    {
        conn_.fd = pair_.releaseServer();
        fuzzCheck(pair_.send(commands), "the test can send");
    }

    void negotiate()
    {
        int result = conn_.negotiateOptions();
        for (int looks = 1; result == 2 && looks < MOST_LOOKS; ++looks)
            result = conn_.negotiateOptions();
        expected_.negotiate();
        fuzzCheck(result == 0, "a negotiation succeeds");
        check();
    }

    void switchEcho(bool on)
    {
        conn_.setEcho(on ? 1 : 0);
        for (int looks = 0; conn_.settling && looks < MOST_LOOKS; ++looks)
            fuzzCheck(conn_.readCmd() == 0, "no line comes of an echo switch");
        fuzzCheck(!conn_.settling, "an echo switch ends");
        expected_.switchEcho(on);
        check();
    }

    /// Types, then reads once.
    void type(const std::string& bytes)
    {
        if (!bytes.empty() && !pair_.send(bytes)) return; // the line is full
        expected_.rest += bytes;
        const std::string seen = expected_.rest.substr(0, TPortConn::RX_BYTES);
        const int count = conn_.readCmd();
        if (seen.empty()) {
            fuzzCheck(count == 0, "nothing yields nothing");
            return;
        }
        fuzzCheck(conn_.rxLen == static_cast<int>(seen.size()), "all is seen, up to the buffer's size");
        if (expected_.echo && seen.size() > echoed_) {
            expected_.sent += seen.substr(echoed_);
            echoed_ = seen.size();
        }
        if (seen.find_first_of("\r\n") == std::string::npos) {
            fuzzCheck(count == 0, "a line without an end yields nothing");
        } else {
            echoed_ = 0;
            expected_.rest.erase(0, seen.size());
            checkLines(count, linesByRules(seen, false));
        }
        check();
    }

    std::string& rest() { return expected_.rest; }

private:
    static constexpr int MOST_LOOKS = 5; ///< that an exchange of options needs when all input is there

    void checkLines(int count, const std::vector<std::string>& lines)
    {
        fuzzCheck(count == static_cast<int>(lines.size()), "the number of lines is what the rules give");
        for (std::size_t i = 0; i < lines.size(); ++i) {
            fuzzCheck(conn_.cmds[i].text == lines[i], "a line is what the rules give");
            fuzzCheck(conn_.cmds[i].tag == 0, "a line has no tag");
        }
    }

    void check()
    {
        sent_ += pair_.received();
        fuzzCheck(sent_ == expected_.sent, "the client gets these bytes");
        fuzzCheck((conn_.lineMode != 0) == expected_.linemode, "LINEMODE is what the client has said");
        fuzzCheck((conn_.serverEcho != 0) == expected_.echo, "the server echoes for plain clients");
        std::string left(expected_.rest.size() + 1, '\0');
        const ssize_t n = ::recv(conn_.fd, left.data(), left.size(), MSG_PEEK | MSG_DONTWAIT);
        left.resize(static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
        fuzzCheck(left == expected_.rest, "what is not consumed stays in the socket");
    }

    StreamPair pair_;
    TTelnetConn conn_{2, 0xAA01'0000};
    Expected expected_;
    std::string sent_;
    std::size_t echoed_ = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzInput input(data, size);
    std::string commands = input.chunk(MOST_COMMAND_BYTES);
    Session session(commands + TAIL);
    session.negotiate();
    // The waits for the answers read on, over the tail; when that is used up, they would wait.
    if (session.rest().ends_with(TAIL)) session.switchEcho(false);
    session.type("\n");
    while (!input.empty())
        session.type(input.chunk(1100));
    return 0;
}
