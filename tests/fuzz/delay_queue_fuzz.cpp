#include <algorithm>
#include <optional>

#include "commands/delay_command.h"
#include "commands/delay_time.h"
#include "commands/reply.h"
#include "common/text.h"
#include "tests/commands/command_test_bench.h"
#include "tests/commands/fake_clock.h"
#include "tests/fuzz/fuzz_check.h"
#include "tests/fuzz/fuzz_input.h"
#include "tests/support/fake_conn.h"

namespace {

std::optional<std::vector<std::int64_t>> numbersOf(const std::string& text)
{
    std::vector<std::int64_t> numbers;
    bool inNumber = false;
    for (const char c : text) {
        const bool separates = c == ':' || c == ' ' || c == '.';
        if (!separates && (c < '0' || c > '9')) return std::nullopt;
        if (!separates && !inNumber) numbers.push_back(0);
        if (!separates) numbers.back() = numbers.back() * 10 + (c - '0');
        if (!separates && numbers.back() > INT32_MAX) return std::nullopt;
        inNumber = !separates;
    }
    return numbers;
}

/// A product as 32 signed bits hold it.
std::int64_t in32Bits(std::int64_t product)
{
    const std::int64_t low = product % (std::int64_t{1} << 32);
    return low >= (std::int64_t{1} << 31) ? low - (std::int64_t{1} << 32) : low;
}

std::uint64_t timeByRules(const std::string& text)
{
    const auto numbers = numbersOf(text);
    if (!numbers || numbers->empty() || numbers->size() > 4) return 0;
    constexpr std::int64_t limits[] = {999, 59'999, 2'999'999, INT32_MAX};
    constexpr std::int64_t factors[] = {3'600'000, 60'000, 1000, 1};
    const std::size_t skipped = 4 - numbers->size();
    std::int64_t sum = 0;
    for (std::size_t i = 0; i < numbers->size(); ++i) {
        if ((*numbers)[i] > limits[skipped + i]) return 0;
        sum += in32Bits((*numbers)[i] * factors[skipped + i]);
    }
    return static_cast<std::uint64_t>(sum);
}

void checkListing(const FakeConn& conn, const DelayQueue& queue)
{
    std::string all;
    for (const std::string& part : conn.written) {
        fuzzCheck(part.size() <= MSG_TEXT_BYTES - 1, "each write fits a record");
        fuzzCheck(part.ends_with("\r\n"), "each write ends with a line");
        all += part;
    }
    fuzzCheck(all.starts_with("OK\r\n") && all.ends_with("\r\n"), "a listing has its first and last line");
    std::size_t at = 4;
    for (const auto& [due, line] : queue.lines()) {
        const std::size_t timeEnd = all.find(' ', at);
        fuzzCheck(timeEnd != std::string::npos, "an entry has its time");
        const std::string time = all.substr(at, timeEnd - at);
        fuzzCheck(time.find_first_not_of("0123456789:.-") == std::string::npos, "a time has numbers only");
        fuzzCheck(time.size() >= 13 && time[time.size() - 4] == '.', "a time ends with three digits");
        fuzzCheck(all.compare(timeEnd + 1, line.size() + 2, line + "\r\n") == 0, "an entry has its line");
        at = timeEnd + 1 + line.size() + 2;
    }
    fuzzCheck(all.substr(at) == "\r\n", "nothing follows but the empty line");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzInput input(data, size);
    static CommandTestBench bench; // its queue is not used
    bench.delayQueues.clear();
    FakeClock clock(input.number<std::uint32_t>(), input.number<std::uint32_t>() % 1'000'000'000);
    while (!input.empty()) {
        const std::string text = input.take(input.byte() % 24U);
        const std::uint64_t time = parseDelayTime(text);
        fuzzCheck(time == timeByRules(text), "the time is what the rules give");

        std::string line = input.take(input.byte());
        std::erase_if(line, [](char c) { return c == '\r' || c == '\n' || c == '\0'; }); // no reader yields them
        const std::string token = "DELAY " + text;
        const std::string_view tokens[] = {token, line};
        const std::size_t before = bench.delayQueues.lines().size();
        const int result = setDelay(bench.context, tokens);
        const bool clears = beginsWithNoCase(trimmed(text), "CLEAR");
        const bool isTaken = clears || parseDelayTime(trimmed(text)) != 0;
        fuzzCheck((result == 0) == isTaken, "a time is taken unless it is 0");
        fuzzCheck(bench.delayQueues.lines().size() == (clears ? 0 : before + (isTaken ? 1 : 0)),
                  "a line that is taken is queued");
        if (input.byte() % 8 == 0) bench.delayQueues.add(input.number<std::uint64_t>(), "any time");
        clock.set(clock.seconds + input.byte() % 4, input.number<std::uint32_t>() % 1'000'000'000);
        FakeConn conn(PORT_IPC, 0xBB01'0000);
        fuzzCheck(listDelays(bench.context, &conn) == 0, "a listing succeeds");
        checkListing(conn, bench.delayQueues);
    }
    return 0;
}
