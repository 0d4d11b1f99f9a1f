#include <charconv>
#include <iostream>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "encoder.h"
#include "framework/command_process.h"
#include "framework/log_mgr.h"
#include "framework/tess_messages.h"

namespace {

constexpr long DEFAULT_QUEUE_ID = 1500;

/// @return the queue address that `text` gives, 0 when it gives none
long readQueueId(std::string_view text)
{
    long address = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), address);
    const bool whole = error == std::errc{} && end == text.data() + text.size();
    return whole && address >= 1 && address <= HIGHEST_QUEUE_ADDRESS ? address : 0;
}

} // namespace

/// A process of the device in small: an encoder that takes commands under the name ENC.
int main(int argc, char** argv)
{
    const long queueId = argc == 2 ? readQueueId(argv[1]) : DEFAULT_QUEUE_ID;
    if (argc > 2 || queueId == 0) {
        std::cerr << "usage: encoder [QUEUE-ADDRESS]\n";
        return 2;
    }
    logMgr.setLogParameters(128, 6, "    [ENC]", 4);
    Encoder encoder;
    try {
        const auto answerTo = [&encoder](std::string_view command) { return encoder.answerTo(command); };
        return CommandProcess(queueId, "ENC", PORTS_ALL, answerTo).run();
    } catch (const std::runtime_error&) {
        return 1; // the queue did not open, and the log says why
    }
}
