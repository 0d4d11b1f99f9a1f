#include "tools/tessctl/requests.h"

#include <chrono>
#include <iostream>
#include <string_view>
#include <thread>
#include <unistd.h>

#include "common/text.h"
#include "framework/tess_messages.h"
#include "tools/tessctl/daemon_client.h"
#include "tools/tessctl/record_text.h"
#include "tools/tessctl/say.h"
#include "tools/tessctl/standard_output.h"

namespace {

constexpr std::chrono::seconds REINIT_PATIENCE{600}; // it installs software
constexpr std::chrono::seconds STOP_PATIENCE{30};
constexpr std::chrono::milliseconds BETWEEN_LOOKS{20};

bool userAgrees(const std::string& question)
{
    if (::isatty(STDIN_FILENO) == 0) {
        say("refusing without --yes: standard input is not a terminal");
        return false;
    }
    std::cout << question << " [y/N] " << std::flush;
    std::string answer;
    std::getline(std::cin, answer);
    return answer == "y" || answer == "Y" || answer == "yes";
}

} // namespace

ExitStatus runClose(bool telnetOnly)
{
    DaemonClient daemon;
    daemon.send(telnetOnly ? MSG_CLOSE_TELNET : MSG_CLOSE_ALL, 0, 0, "");
    return STATUS_DONE;
}

ExitStatus runCom2(const std::string& text, bool newline)
{
    const std::string bytes = newline ? text + "\r\n" : text;
    if (bytes.size() > MSG_TEXT_BYTES)
        throw CtlError(STATUS_WRONG_USAGE, "the text is too long, the limit is " + std::to_string(MSG_TEXT_BYTES) +
                                               " bytes with its line end");
    DaemonClient daemon;
    daemon.send(MSG_COM2_WRITE, static_cast<std::uint32_t>(::getpid()), static_cast<std::int32_t>(bytes.size()), bytes);
    if (daemon.reply().len == 0) return STATUS_DONE;
    throw CtlError(STATUS_REFUSED,
                   std::string(COM2_DEVICE) +
                       ": tessd has not written the text: is there a second serial line, does its far end "
                       "read, and does tessd run with the COM2 port?");
}

ExitStatus runReset(const std::string& reinitHost, bool yes)
{
    const std::string question = reinitHost.empty()
                                     ? "Restart this device?"
                                     : "Re-initialise the software of '" + reinitHost + "' and restart it?";
    if (!yes && !userAgrees(question)) return STATUS_REFUSED;
    DaemonClient daemon;
    // With its NUL, and room for the answer, which is as long as the request.
    std::string line = reinitHost.empty() ? "RESET" : "RESET REINIT " + reinitHost;
    line.resize(std::max<std::size_t>(line.size() + 1, 64));
    daemon.send(MSG_RESET, 0, 0, line);
    const TOrbAttachmentMsg answer = daemon.reply(reinitHost.empty() ? DaemonClient::REPLY_PATIENCE : REINIT_PATIENCE);
    std::cout << withoutLineEnds(textOf(answer)) << '\n';
    requireOutput();
    return textOf(answer).starts_with("OK") ? STATUS_DONE : STATUS_REFUSED;
}

ExitStatus runStop()
{
    DaemonClient daemon;
    daemon.send(MSG_STOP, 0, 0, "");
    const auto deadline = std::chrono::steady_clock::now() + STOP_PATIENCE;
    while (queueError(TESS_QUEUE_ID) == 0) {
        if (stopAsked()) throw CtlError(STATUS_NO_ANSWER, "interrupted");
        if (std::chrono::steady_clock::now() > deadline)
            throw CtlError(STATUS_NO_ANSWER, queuePath(TESS_QUEUE_ID) + ": tessd has not ended within " +
                                                 std::to_string(STOP_PATIENCE.count()) + " s: is it stuck?");
        std::this_thread::sleep_for(BETWEEN_LOOKS);
    }
    return STATUS_DONE;
}
