#include "tools/tessctl/daemon_client.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

#include "framework/fixed_text.h"
#include "framework/queue_mgr.h"
#include "framework/tess_messages.h"
#include "tools/tessctl/exit_status.h"
#include "tools/tessctl/likely_cause.h"

namespace {

constexpr std::chrono::seconds SEND_PATIENCE{5};
constexpr std::chrono::milliseconds BETWEEN_TRIES{20};
// Far from the addresses that device processes are given. Process numbers are below 5 million; containers may share them.
constexpr long FIRST_FREE_ADDRESS = 1'000'000'000;
constexpr long ADDRESS_STEP = 5'000'000;

volatile std::sig_atomic_t stopSignal = 0;

extern "C" void noteStop(int signo)
{
    stopSignal = signo;
}

void catchStopSignals()
{
    struct sigaction action {};
    action.sa_handler = noteStop;
    (void)::sigaction(SIGINT, &action, nullptr); // both exist
    (void)::sigaction(SIGTERM, &action, nullptr);
}

/// Everything that can be wrong, looked at before the queue is opened, so that it can be told in plain words.
/// @return the address to open
long usableAddress(std::optional<long> wanted)
{
    const std::string directory = queueDirectory();
    if (::access(directory.c_str(), R_OK | W_OK | X_OK) != 0)
        throw TCtlError(STATUS_NO_CONNECTION, failureText(directory, errno, PathOf::queueDirectory));
    if (const int error = queueError(TESS_QUEUE_ID))
        throw TCtlError(STATUS_NO_CONNECTION, failureText(queuePath(TESS_QUEUE_ID), error, PathOf::daemonQueue));
    if (wanted) {
        if (queueError(*wanted) == 0)
            throw TCtlError(STATUS_NO_CONNECTION, failureText(queuePath(*wanted), EADDRINUSE, PathOf::ownQueue));
        return *wanted;
    }
    long address = FIRST_FREE_ADDRESS + ::getpid();
    while (queueError(address) == 0)
        address += ADDRESS_STEP;
    return address;
}

} // namespace

std::string queueDirectory()
{
    const char* directory = std::getenv("TESS_QUEUE_DIR");
    return directory == nullptr || *directory == '\0' ? "/run/tess/queue" : directory;
}

std::string queuePath(long address)
{
    return queueDirectory() + "/" + std::to_string(address);
}

int queueError(long address)
{
    const std::string path = queuePath(address);
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    if (putText(name.sun_path, path) < path.size()) return ENAMETOOLONG;
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return errno;
    const int error = ::connect(fd, reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0 ? 0 : errno;
    ::close(fd);
    return error;
}

bool stopAsked()
{
    return stopSignal != 0;
}

TDaemonClient::TDaemonClient(std::optional<long> address)
try : TMsgProc(usableAddress(address), true) {
    catchStopSignals();
} catch (const TCtlError&) {
    throw;
} catch (const std::runtime_error& error) {
    throw TCtlError(STATUS_NO_CONNECTION, error.what());
}

void TDaemonClient::send(std::uint32_t kind, std::uint32_t tag, std::int32_t len, std::string_view text)
{
    TOrbAttachmentMsg record{.kind = kind, .sender = 0, .tag = tag, .len = len, .text = {}};
    const std::size_t textBytes = text.copy(record.text, sizeof record.text);
    const auto length = static_cast<long>(MSG_HEADER_BYTES + textBytes);
    const auto deadline = std::chrono::steady_clock::now() + SEND_PATIENCE;
    while (g_qMgr.sendMsg(TESS_QUEUE_ID, &record, length, false) != 0) {
        const int error = queueError(TESS_QUEUE_ID);
        if (error != 0)
            throw TCtlError(STATUS_NO_CONNECTION, failureText(queuePath(TESS_QUEUE_ID), error, PathOf::daemonQueue));
        if (std::chrono::steady_clock::now() > deadline)
            throw TCtlError(STATUS_NO_ANSWER, queuePath(TESS_QUEUE_ID) + ": the queue stays full: is tessd stuck?");
        std::this_thread::sleep_for(BETWEEN_TRIES);
    }
}

std::size_t TDaemonClient::receive(TOrbAttachmentMsg& record)
{
    const long received = g_qMgr.getMsg(&record, MSG_QUEUE_ALL, true);
    if (received < 0) throw TCtlError(STATUS_NO_CONNECTION, failureText(queuePath(queueId()), errno, PathOf::ownQueue));
    return static_cast<std::size_t>(received);
}

TOrbAttachmentMsg TDaemonClient::reply(std::chrono::seconds patience)
{
    const auto deadline = std::chrono::steady_clock::now() + patience;
    TOrbAttachmentMsg record;
    do {
        if (receive(record) > 0 && record.sender == TESS_QUEUE_ID && record.kind != MSG_TEXT) return record;
        if (stopAsked()) throw TCtlError(STATUS_NO_ANSWER, "interrupted");
    } while (std::chrono::steady_clock::now() < deadline);
    throw TCtlError(STATUS_NO_ANSWER, queuePath(TESS_QUEUE_ID) + ": no answer from tessd within " +
                                          std::to_string(patience.count()) + " s");
}

void TDaemonClient::askToRegister(std::string_view name, std::uint32_t ports)
{
    std::string text(reinterpret_cast<const char*>(&ports), sizeof ports);
    text += name;
    text += '\0';
    send(MSG_REGISTER, 0, 0, text);
}

void TDaemonClient::registerAs(std::string_view name, std::uint32_t ports)
{
    askToRegister(name, ports);
    const TOrbAttachmentMsg answer = reply();
    if (answer.tag == 0) return;
    throw TCtlError(STATUS_REFUSED,
                    "tessd refuses: " + std::string(answer.text, ::strnlen(answer.text, sizeof answer.text)));
}
