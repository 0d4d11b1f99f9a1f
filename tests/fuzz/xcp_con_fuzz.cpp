#include "connections/xcp_con.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include "tests/fuzz/fuzz_check.h"
#include "tests/fuzz/fuzz_input.h"
#include "tests/support/line_rules.h"
#include "tests/support/stream_pair.h"

namespace {

struct FrameHeader {
    std::uint32_t word0, word1, tag;
    std::int32_t payloadBytes;
};

std::string bytesOf(const FrameHeader& header)
{
    std::string bytes(sizeof header, '\0');
    std::memcpy(bytes.data(), &header, sizeof header);
    return bytes;
}

/// What a client sends next: a frame, sometimes one that lies about its length, or anything at all.
std::string nextBytes(FuzzInput& input)
{
    const std::uint8_t choice = input.byte();
    if (choice % 8 == 0) return input.chunk(64);
    const std::string payload = input.chunk(1100);
    FrameHeader header{0x5A5A'5A5A, 0xA5A5'A5A5, input.number<std::uint32_t>(),
                       static_cast<std::int32_t>(payload.size())};
    if (choice % 8 == 1) header.payloadBytes = input.number<std::int32_t>();
    if (choice % 8 == 2) header.payloadBytes += static_cast<std::int8_t>(input.byte());
    return bytesOf(header) + payload;
}

/// A client and its connection, and what is on the way between them.
struct Session {
    Session() { conn.fd = pair.releaseServer(); }

    /// @return false when the connection is to be closed
    bool read()
    {
        const Instant frameEnd = conn.due;
        const int count = conn.readCmd();
        fuzzCheck(count >= -1 && count <= TPortConn::RX_BYTES, "the result is a number of lines, or -1");
        const bool isLate = hasBegun && instantNow() >= frameEnd;
        if (count == -1 && isLate) return false; // a slow machine
        FrameHeader header{};
        hasBegun = !inFlight.empty() && inFlight.size() < sizeof header;
        fuzzCheck(conn.wantsInput, "input is waited for");
        if (inFlight.size() < sizeof header) {
            fuzzCheck(count == 0, "a header that is not whole yields nothing");
            fuzzCheck(hasBegun == (conn.due != NEVER), "and is waited for, once it has begun");
            return true;
        }
        std::memcpy(&header, inFlight.data(), sizeof header);
        if (header.payloadBytes < 0 || header.payloadBytes > 1008) {
            fuzzCheck(count == -1, "a length that does not fit ends the connection");
            return false;
        }
        const auto declared = static_cast<std::size_t>(header.payloadBytes);
        const std::string payload = inFlight.substr(sizeof header, declared);
        checkEntries(count, header, declared);
        if (payload.size() == declared) checkLines(count, payload);
        checkTaken(count, sizeof header + payload.size());
        inFlight.erase(0, sizeof header + payload.size());
        return true;
    }

    void checkTaken(int count, std::size_t frameBytes) const
    {
        const auto taken = static_cast<std::size_t>(conn.rxLen);
        fuzzCheck(taken >= frameBytes && taken <= inFlight.size(), "a frame is taken, and nothing that was not sent");
        const Instant due = taken > frameBytes ? AT_ONCE : NEVER;
        if (count >= 0) fuzzCheck(conn.due == due, "what was taken of the next frame is looked at at once");
    }

    void checkEntries(int count, const FrameHeader& header, std::size_t declared)
    {
        const char* const begin = conn.rxBuf.data() + sizeof header;
        for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i) {
            const CmdEntry& entry = conn.cmds[i];
            fuzzCheck(entry.text >= begin && entry.text < begin + declared, "a line begins inside the payload");
            fuzzCheck(entry.text + std::strlen(entry.text) <= begin + declared,
                      "a line ends with the payload at the latest");
            fuzzCheck(entry.tag == header.tag, "a line has the frame's tag");
        }
    }

    void checkLines(int count, const std::string& payload)
    {
        const std::vector<std::string> lines = frameLinesByRules(payload);
        fuzzCheck(count == static_cast<int>(lines.size()), "the number of lines is what the rules give");
        for (std::size_t i = 0; i < lines.size(); ++i)
            fuzzCheck(conn.cmds[i].text == lines[i], "a line is what the rules give");
    }

    StreamPair pair;
    TXCPCon conn{4, 0x0057'0000};
    std::string inFlight;
    bool hasBegun = false; ///< a header
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzInput input(data, size);
    auto session = std::make_unique<Session>();
    while (!input.empty()) {
        const std::string sent = nextBytes(input);
        fuzzCheck(sent.empty() || session->pair.send(sent), "the test can send");
        session->inFlight += sent;
        const int reads = 1 + input.byte() % 3;
        for (int i = 0; i < reads; ++i) {
            if (session->read()) continue;
            session = std::make_unique<Session>();
            break;
        }
    }
    fuzzCheck(session->pair.received().empty(), "nothing is echoed");
    return 0;
}
