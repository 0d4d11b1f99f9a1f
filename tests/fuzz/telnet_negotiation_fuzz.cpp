#include "connections/telnet_negotiation.h"

#include <vector>

#include "connections/telnet_echo_switch.h"
#include "tests/fuzz/fuzz_check.h"
#include "tests/fuzz/fuzz_input.h"
#include "tests/support/telnet_conversation.h"

using telnet::Verdict;

namespace {

constexpr std::chrono::seconds LONGEST_NEGOTIATION = TelnetNegotiation::TIME + TelnetNegotiation::LINEMODE_TIME;

TelnetConversation<TelnetNegotiation> negotiation()
{
    return TelnetConversation<TelnetNegotiation>([](Instant now) { return TelnetNegotiation(now); });
}

/// Says the pieces in their time, and nothing after that.
template <class Talk> void run(Talk& talk, const std::vector<Piece>& pieces, std::chrono::milliseconds longest)
{
    std::chrono::milliseconds last{0};
    for (const Piece& piece : pieces) {
        talk.passTo(std::chrono::milliseconds(piece.at));
        talk.hear(piece.bytes);
        last = std::chrono::milliseconds(piece.at);
    }
    if (talk.isUnderWay()) fuzzCheck(talk.exchange().due() > Instant{} + talk.now(), "what is due has been looked at");
    talk.passTo(last + longest);
    fuzzCheck(!talk.isUnderWay(), "it comes to an end");
    fuzzCheck(talk.now() <= longest, "in time");
}

std::vector<Piece> byteByByte(const std::vector<Piece>& pieces)
{
    std::vector<Piece> bytes;
    for (const Piece& piece : pieces)
        for (const char byte : piece.bytes)
            bytes.push_back({piece.at, {byte}});
    return bytes;
}

void checkSent(const std::string& sent, std::size_t used)
{
    if (used == 0) {
        fuzzCheck(sent.empty(), "nothing is sent before a command has come");
        return;
    }
    fuzzCheck(sent.starts_with(OFFERS), "the offers come first");
    const std::size_t asked = sent.find(MODE_AND_SLC);
    const std::size_t length = asked == std::string::npos ? 0 : MODE_AND_SLC.size();
    for (std::size_t i = OFFERS.size(); i < sent.size(); i += 3) {
        if (i == asked) {
            i += length - 3;
            continue;
        }
        fuzzCheck(sent[i] == '\xFF' && sent[i + 1] == '\xFC', "everything else is a refusal");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzInput input(data, size);
    std::vector<Piece> pieces;
    std::size_t bytes = 0;
    for (int at = 0; !input.empty(); at += input.number<std::uint16_t>() % 1500) {
        pieces.push_back({at, input.chunk(1100)});
        bytes += pieces.back().bytes.size();
    }
    auto talk = negotiation();
    run(talk, pieces, LONGEST_NEGOTIATION);
    checkSent(talk.sent(), bytes - talk.rest().size());
    fuzzCheck(talk.verdict() != Verdict::drop, "what the client says is no reason to drop it");

    auto slow = negotiation();
    run(slow, byteByByte(pieces), LONGEST_NEGOTIATION);
    fuzzCheck(slow.sent() == talk.sent() && slow.rest() == talk.rest() && slow.verdict() == talk.verdict() &&
                  slow.now() == talk.now(),
              "it makes no difference in which pieces bytes arrive");

    TelnetConversation<TelnetEchoSwitch> echo([](Instant now) { return TelnetEchoSwitch(false, now); });
    run(echo, pieces, TelnetEchoSwitch::TIME);
    fuzzCheck(echo.sent().empty(), "an echo switch answers nothing");
    return 0;
}
