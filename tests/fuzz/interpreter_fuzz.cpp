#include "commands/interpreter.h"

#include <algorithm>
#include <cstring>

#include "commands/delay_runner.h"
#include "commands/reply.h"
#include "common/text.h"
#include "framework/tokenizer.h"
#include "tests/commands/command_test_bench.h"
#include "tests/fuzz/fuzz_check.h"
#include "tests/fuzz/fuzz_input.h"
#include "tests/support/fake_conn.h"

namespace {

int resets = 0;
bool waitsForReset = false;

/// Refused by turns, and by turns at a second asking only.
ResetResult fakeResetDevice(const char* line, const void*)
{
    const std::size_t length = std::strlen(line);
    waitsForReset = !waitsForReset && length % 4 < 2;
    if (waitsForReset) return RESET_WAITS;
    ++resets;
    return length % 2 == 0 ? RESET_STARTED : RESET_REFUSED;
}

bool isReply(std::string_view text)
{
    static constexpr std::string_view replies[] = {"?\r\n", "0\r\n\r\n", "OK\r\n\r\n",
                                                   "Error Processing Reset Command.\r\n\r\n",
                                                   "Error Setting Command: Invalid Arguments.\r\n\r\n"};
    return std::find(std::begin(replies), std::end(replies), text) != std::end(replies);
}

/// Listings may be long and come in several writes; nothing else begins with a digit or goes on
/// behind "OK".
bool isListing(std::string_view text)
{
    return text.ends_with("\r\n") && (text.starts_with("OK\r\n") || text.find(':') != std::string_view::npos);
}

class Session {
public:
    Session()
    {
        bench_.outMsg.kind = MSG_TEXT;
        bench_.outMsg.sender = 4711;
        bench_.context.resetDevice = fakeResetDevice;
        bench_.registerProcess(2001, 0xFFFF'FFFF, "ENC");
        bench_.registerProcess(2002, PORT_IPC | PORT_XCP, "GPSD"); // has no queue
    }

    /// One line, from a connection of that kind or, for 0, from none.
    void process(std::uint32_t portType, std::uint32_t tag, std::string line)
    {
        line = line.c_str(); // as readers hand it over: up to its NUL
        FakeConn conn(portType, 0xBB01'0000);
        std::vector<char> buffer(line.c_str(), line.c_str() + line.size() + 1);
        const CmdEntry entry{tag, buffer.data()};
        const int resetsBefore = resets;
        forwarded_.clear();
        int result = 0;
        while ((result = processCmd(bench_.context, portType != 0 ? &conn : nullptr, &entry)) == CMD_WAITS)
            makeRoom(portType != 0 ? conn.progress : bench_.delayedLine.progress);
        checkAtItsStart(portType != 0 ? conn.progress : bench_.delayedLine.progress);

        const bool isReset = beginsWithNoCase(line, "RESET");
        const bool quits = portType == PORT_TELNET && line.starts_with("quit") && !isReset;
        fuzzCheck(line == buffer.data(), "the line is left as it is");
        fuzzCheck(resets - resetsBefore == (isReset ? 1 : 0), "a reset is tried for a line that begins so");
        fuzzCheck((result == CMD_CLOSE_CONNECTION) == quits, "quit closes a telnet connection, and nothing else does");
        fuzzCheck(result == 0 || result == 1 || quits, "the result is 0, 1 or -2");
        fuzzCheck(result != 1 || isReset, "1 reports a reset that failed");
        fuzzCheck(!(quits && !conn.written.empty()), "quit gets no reply");
        for (const std::string& text : conn.written)
            fuzzCheck(isReply(text) || isListing(text), "a reply is one of the known texts");
        checkRecord();
        takeForwarded();
        checkForwards(portType != 0 ? conn.connId | tag : tag);
        if (!isReset && !quits) checkNothingIsLost(line, conn.written.size(), portType != 0);
    }

    /// Lets everything that is delayed fall due at once.
    void runDelayed()
    {
        DelayQueue due;
        for (const auto& [time, line] : bench_.delayQueues.lines())
            due.add(0, line);
        bench_.delayQueues = std::move(due);
        forwarded_.clear();
        for (runDelays(bench_.context); bench_.delayedLine.runs; runDelays(bench_.context))
            makeRoom(bench_.delayedLine.progress);
        checkAtItsStart(bench_.delayedLine.progress);
        for (const auto& [time, line] : bench_.delayQueues.lines())
            fuzzCheck(time != 0, "what was due is no longer queued");
        checkRecord();
        takeForwarded();
        checkForwards(0);
    }

private:
    void takeForwarded()
    {
        for (const Received& record : encoder_.receiveAll())
            forwarded_.push_back(record);
    }

    /// For a line that waits; others write to the record meanwhile.
    void makeRoom(const CmdProgress& progress)
    {
        fuzzCheck(progress.waits(), "a line that waits says what for");
        if (progress.wait == CmdProgress::Wait::room) {
            fuzzCheck(progress.queueWaiter.address == 2001, "it waits for the process whose queue is full");
            const std::size_t before = forwarded_.size();
            takeForwarded();
            fuzzCheck(forwarded_.size() > before, "it waits for a queue that is full");
        }
        bench_.outMsg.tag = 0xFFFF'FFFF;
        bench_.outMsg.text[0] = '\0';
        bench_.outLen = 0;
    }

    void checkAtItsStart(const CmdProgress& progress)
    {
        fuzzCheck(!progress.waits() && progress.token == 0 && !progress.pastReset && progress.queueWaiter.address == 0,
                  "a line leaves nothing behind");
    }

    /// Every token up to a DELAY is forwarded, or answered, or both; without a connection some are
    /// neither.
    void checkNothingIsLost(const std::string& line, std::size_t replies, bool hasConn)
    {
        std::vector<std::string_view> tokens;
        stringTokenizer(line, tokens, "|");
        const auto delay =
            std::ranges::find_if(tokens, [](auto token) { return beginsWithNoCase(trimmed(token), "DELAY"); });
        const auto before = static_cast<std::size_t>(delay - tokens.begin());
        fuzzCheck(forwarded_.size() <= before, "no token is forwarded twice");
        if (hasConn) fuzzCheck(forwarded_.size() + replies >= before, "no token is lost");
    }

    void checkRecord()
    {
        fuzzCheck(bench_.outMsg.kind == MSG_TEXT && bench_.outMsg.sender == 4711, "kind and sender are left alone");
        fuzzCheck(std::memchr(bench_.outMsg.text, 0, MSG_TEXT_BYTES) != nullptr, "the record's text ends with a NUL");
        fuzzCheck(bench_.outLen == 0 || (bench_.outLen >= 18 && bench_.outLen <= 16 + 1023 + 2),
                  "a forwarded record has 0 to 1023 characters, a LF and a NUL");
    }

    void checkForwards(std::uint32_t tag)
    {
        for (const Received& forwarded : forwarded_) {
            const std::string_view text = forwarded.textBytes();
            fuzzCheck(text.size() >= 2 && text.ends_with(std::string_view("\n\0", 2)),
                      "a command ends with LF and NUL");
            fuzzCheck(text.find('\0') == text.size() - 1, "a command has one NUL");
            fuzzCheck(text.find('|') == std::string_view::npos, "a command has no separator");
            fuzzCheck(forwarded.record.kind == MSG_TEXT, "a command is text");
            fuzzCheck(forwarded.record.tag == tag, "a command has the tag of connection and entry");
        }
    }

    CommandTestBench bench_;
    QueueProcess encoder_{bench_.directory, 2001};
    std::vector<Received> forwarded_; ///< to the process, since the line began
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static constexpr std::uint32_t portTypes[] = {PORT_IPC, PORT_TELNET, PORT_XCP, PORT_COM2, 0};
    FuzzInput input(data, size);
    const std::uint32_t portType = input.oneOf(portTypes);
    const std::uint32_t tag = input.number<std::uint32_t>();
    Session session;
    std::string text = input.rest();
    for (std::size_t end = 0; !text.empty(); text.erase(0, end)) {
        end = std::min(text.find('\n'), text.size() - 1) + 1;
        session.process(portType, tag, text.substr(0, end - 1));
    }
    session.runDelayed();
    return 0;
}
