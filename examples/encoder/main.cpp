#include "examples/encoder/encoder.h"

#include "framework/log_mgr.h"
#include "framework/tess_messages.h"

#include <charconv>
#include <csignal>
#include <iostream>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <unistd.h>

namespace {

constexpr long DEFAULT_QUEUE_ID = 1500;

constexpr unsigned MOST_STOP_SECONDS = 5;

volatile std::sig_atomic_t stopRequested = 0;

extern "C" void requestStop(int)
{
    // A tessd that is halted with a full queue would keep us waiting for room: then SIGALRM ends this process.
    if (stopRequested == 0) ::alarm(MOST_STOP_SECONDS);
    stopRequested = 1;
}

/// SIGTERM and SIGINT ask for a stop; a log that nobody reads any more is no reason to end.
/// @return whether all of that worked
bool setUpSignals()
{
    struct sigaction stop {};
    struct sigaction ignore {};
    stop.sa_handler = requestStop;
    ignore.sa_handler = SIG_IGN;
    return ::sigaction(SIGTERM, &stop, nullptr) == 0 && ::sigaction(SIGINT, &stop, nullptr) == 0 &&
           ::sigaction(SIGPIPE, &ignore, nullptr) == 0;
}

/// @return the queue address that `text` gives, 0 when it gives none
long readQueueId(std::string_view text)
{
    long address = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), address);
    const bool whole = error == std::errc{} && end == text.data() + text.size();
    return whole && address >= 1 && address <= HIGHEST_QUEUE_ADDRESS ? address : 0;
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
    if (!setUpSignals()) {
        std::cerr << "encoder: cannot set up its signals\n";
        return 1;
    }
    try {
        TEncoder encoder(queueId, stopRequested);
        return encoder.run();
    } catch (const std::runtime_error&) {
        return 1; // the queue did not open, and the log says why
    }
}
