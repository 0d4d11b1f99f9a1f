#include "examples/encoder/encoder.h"

#include "framework/log_mgr.h"

#include <charconv>
#include <csignal>
#include <iostream>
#include <limits>
#include <stdexcept>
#include <string_view>
#include <system_error>

namespace {

constexpr long DEFAULT_QUEUE_ID = 1500;
constexpr long MAX_QUEUE_ID = std::numeric_limits<int>::max();

volatile std::sig_atomic_t stopRequested = 0;

extern "C" void requestStop(int)
{
    stopRequested = 1;
}

/// @return whether both signals now ask for a stop
bool catchStopSignals()
{
    struct sigaction action {};
    action.sa_handler = requestStop;
    return ::sigaction(SIGTERM, &action, nullptr) == 0 && ::sigaction(SIGINT, &action, nullptr) == 0;
}

/// @return the queue address that `text` gives, 0 when it gives none
long readQueueId(std::string_view text)
{
    long address = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), address);
    const bool whole = error == std::errc{} && end == text.data() + text.size();
    return whole && address >= 1 && address <= MAX_QUEUE_ID ? address : 0;
}

} // namespace

int main(int argc, char** argv)
{
    const long queueId = argc == 2 ? readQueueId(argv[1]) : DEFAULT_QUEUE_ID;
    if (argc > 2 || queueId == 0) {
        std::cerr << "usage: encoder [QUEUE-ADDRESS]\n";
        return 2;
    }
    logMgr.setLogParameters(128, 6, "    [ENC]", 4);
    if (!catchStopSignals()) {
        std::cerr << "encoder: cannot catch SIGTERM and SIGINT\n";
        return 1;
    }
    try {
        TEncoder encoder(queueId, stopRequested);
        return encoder.run();
    } catch (const std::runtime_error&) {
        return 1; // the queue did not open, and the log says why
    }
}
