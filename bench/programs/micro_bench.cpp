// What the pieces on a command's way cost by themselves: nanoseconds, and bytes a second where
// there are bytes.
#include <array>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "commands/command_address.h"
#include "connections/line_cutter.h"
#include "connections/telnet_protocol.h"
#include "framework/bundled/log_line.h"
#include "framework/fixed_text.h"
#include "framework/msg_dmn.h"
#include "framework/queue_mgr.h"
#include "framework/tokenizer.h"

namespace {

using benchmark::DoNotOptimize;

constexpr long OWN_ADDRESS = 2001;

class QueueOwner : public TMsgDmn {
public:
    QueueOwner() : TMsgDmn(OWN_ADDRESS, true) {}
    int run() noexcept override { return 0; }
};

void countBytes(benchmark::State& state, std::size_t eachTime)
{
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(eachTime));
}

/// Lines of 32 bytes, `bytes` in all.
std::string commandLines(std::size_t bytes)
{
    std::string text;
    while (text.size() < bytes)
        text += "s3.ENC SETX 5000000000000000000\n";
    text.resize(bytes);
    return text;
}

/// Cutting writes into the text: it is copied each time, and that is part of the figure.
void cutsLines(benchmark::State& state)
{
    const std::string text = commandLines(static_cast<std::size_t>(state.range(0)));
    std::vector<char> received(text.size() + 1);
    std::vector<CmdEntry> lines(text.size());
    for (auto _ : state) {
        std::memcpy(received.data(), text.data(), text.size());
        DoNotOptimize(cutLines(std::span(received).first(text.size()), true, lines));
    }
    countBytes(state, text.size());
}
BENCHMARK(cutsLines)->Arg(32)->Arg(512)->Arg(1023);

void cutsFrameLines(benchmark::State& state)
{
    const std::string text = commandLines(static_cast<std::size_t>(state.range(0)));
    std::vector<char> payload(text.size() + 1);
    std::vector<CmdEntry> lines(text.size());
    for (auto _ : state) {
        std::memcpy(payload.data(), text.data(), text.size());
        DoNotOptimize(cutFrameLines(std::span(payload).first(text.size()), 7, lines));
    }
    countBytes(state, text.size());
}
BENCHMARK(cutsFrameLines)->Arg(32)->Arg(512)->Arg(1008);

void parsesAnAddress(benchmark::State& state, std::string_view text)
{
    CommandAddress address;
    for (auto _ : state) {
        DoNotOptimize(text);
        DoNotOptimize(parseCmdAddress(text, address));
        benchmark::ClobberMemory();
    }
    countBytes(state, text.size());
}
BENCHMARK_CAPTURE(parsesAnAddress, of_a_process, std::string_view("s3.ENC SETX 5"));
BENCHMARK_CAPTURE(parsesAnAddress, of_nobody, std::string_view("SETX 5"));

void splitsALine(benchmark::State& state, std::string_view line)
{
    std::vector<std::string_view> tokens;
    for (auto _ : state) {
        DoNotOptimize(line);
        stringTokenizer(line, tokens, "|");
        DoNotOptimize(tokens.data());
    }
    countBytes(state, line.size());
}
BENCHMARK_CAPTURE(splitsALine, in_one, std::string_view("s3.ENC SETX 5"));
BENCHMARK_CAPTURE(splitsALine, in_three, std::string_view("s3.ENC SETX 5|s3.ENC SETY 6|s3.ENC GO"));

void scansTelnet(benchmark::State& state, std::string_view text)
{
    const std::span input(reinterpret_cast<const telnet::Byte*>(text.data()), text.size());
    for (auto _ : state) {
        DoNotOptimize(input.data());
        DoNotOptimize(telnet::scan(input));
    }
    countBytes(state, text.size());
}
BENCHMARK_CAPTURE(scansTelnet, data, std::string_view("s3.ENC SETX 5\r\n"));
BENCHMARK_CAPTURE(scansTelnet, option, std::string_view("\xff\xfb\x22s3.ENC\r\n"));
BENCHMARK_CAPTURE(
    scansTelnet, sub_negotiation,
    std::string_view("\xff\xfa\x22\x03\x03\x62\x03\x0a\x02\x7f\x0b\x02\x15\x11\x82\x0d\x12\x82\x0d\xff\xf0"));

void formatsALogRow(benchmark::State& state)
{
    const LogLineText::Time time{std::chrono::milliseconds(1'795'305'600'123)};
    std::size_t bytes = 0;
    for (auto _ : state) {
        FixedText<96> text;
        text << "Opened telnet connection 0x";
        text.hex(0xAA010000U) << " from 127.0.0.1";
        LogLineText line;
        line.isoTime(time).text("    [TESS]").text(" ").number(6000).text(" ").oneLineText(text.view()).lineEnd();
        bytes = line.view().size();
        DoNotOptimize(line.view().data());
        benchmark::ClobberMemory();
    }
    countBytes(state, bytes);
}
BENCHMARK(formatsALogRow);

/// A record to the own queue, and out of it again; the text follows the header.
void passesARecord(benchmark::State& state)
{
    const long length = static_cast<long>(MSG_HEADER_BYTES) + state.range(0);
    static TOrbAttachmentMsg sent{};
    static TOrbAttachmentMsg received{};
    for (auto _ : state) {
        if (g_qMgr.sendMsg(OWN_ADDRESS, &sent, length, false) != SEND_DONE ||
            g_qMgr.getMsg(&received, MSG_QUEUE_ALL, false) != length)
            return state.SkipWithError("the record did not come through");
    }
    countBytes(state, static_cast<std::size_t>(length));
}
BENCHMARK(passesARecord)->Arg(16)->Arg(1024)->Arg(MSG_TEXT_BYTES);

} // namespace

int main(int argc, char** argv)
{
    std::string folder = (std::filesystem::temp_directory_path() / "micro_bench.XXXXXX").string();
    if (::mkdtemp(folder.data()) == nullptr || ::setenv("TESS_QUEUE_DIR", folder.c_str(), 1) != 0) return 1;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 64;
    {
        const QueueOwner queue;
        benchmark::RunSpecifiedBenchmarks();
    }
    std::error_code ignored; // what stays behind is an empty folder
    std::filesystem::remove_all(folder, ignored);
    return 0;
}
