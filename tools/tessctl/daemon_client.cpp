#include "tools/tessctl/daemon_client.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

#include "framework/fd.h"
#include "framework/fixed_text.h"
#include "framework/queue_mgr.h"
#include "framework/queue_room.h"
#include "framework/tess_messages.h"
#include "tools/tessctl/exit_status.h"
#include "tools/tessctl/likely_cause.h"
#include "tools/tessctl/record_text.h"
#include "tools/tessctl/registry_answer.h"

namespace {

constexpr std::chrono::seconds SEND_PATIENCE{5};
constexpr std::chrono::milliseconds LAST_PATIENCE{250};
constexpr std::chrono::milliseconds BETWEEN_TRIES{20};
// An address of one's own is FIRST_FREE_ADDRESS and the process number: far from the addresses that
// device processes are given. Process numbers are below 5 million. Two containers may have
// processes of the same number: the second one goes on by ADDRESS_STEP until it finds an address
// that is free.
constexpr long FIRST_FREE_ADDRESS = 1'000'000'000;
constexpr long ADDRESS_STEP = 5'000'000;

constexpr std::size_t MOST_KEPT = 1000;
constexpr std::int64_t SAME_SIGNAL_MS = 100; // timeout(1) and closing terminals signal twice and mean once

std::atomic<int> stopSignals{0}; // any thread may look
static_assert(std::atomic<int>::is_always_lock_free);
timespec firstStop{}; // written by the first signal, read by later ones

extern "C" void noteStop(int)
{
    timespec now{};
    (void)::clock_gettime(CLOCK_MONOTONIC, &now); // it exists
    if (stopSignals == 0) {
        firstStop = now;
        stopSignals = 1;
        return;
    }
    const std::int64_t ms = (now.tv_sec - firstStop.tv_sec) * 1000L + (now.tv_nsec - firstStop.tv_nsec) / 1'000'000;
    if (ms > SAME_SIGNAL_MS) stopSignals = 2;
}

void catchSignals()
{
    struct sigaction action {};
    action.sa_handler = noteStop;
    for (const int signo : {SIGINT, SIGTERM, SIGHUP}) // one handler does not interrupt another
        ::sigaddset(&action.sa_mask, signo);
    (void)::sigaction(SIGINT, &action, nullptr); // they all exist
    (void)::sigaction(SIGTERM, &action, nullptr);
    struct sigaction present {};
    (void)::sigaction(SIGHUP, nullptr, &present);
    const bool underNohup = present.sa_handler == SIG_IGN; // nohup(1) wants it to stay ignored
    if (!underNohup) (void)::sigaction(SIGHUP, &action, nullptr);
    (void)std::signal(SIGPIPE, SIG_IGN); // a reader that has gone is no reason to end without unregistering
}

/// What opening the queue would fail with, in plain words.
/// @throws CtlError
void checkOwnAddress(long address)
{
    const std::string path = queuePath(address);
    int error = queueError(address);
    if (error == 0 || error == EPROTOTYPE || error == EPERM) error = EADDRINUSE; // a live socket, of whatever kind
    struct stat found {};
    if (error == ECONNREFUSED && ::lstat(path.c_str(), &found) == 0 && !S_ISSOCK(found.st_mode)) error = ENOTSOCK;
    if (error != ENOENT && error != ECONNREFUSED)
        throw CtlError(STATUS_NO_CONNECTION, failureText(path, error, PathOf::ownQueue));
}

/// Everything that can be wrong, looked at before the queue is opened, so that it can be told in
/// plain words.
/// @return the address to open
long usableAddress(std::optional<long> wanted)
{
    const std::string directory = queueDirectory();
    if (::access(directory.c_str(), R_OK | W_OK | X_OK) != 0)
        throw CtlError(STATUS_NO_CONNECTION, failureText(directory, errno, PathOf::queueDirectory));
    if (const int error = queueError(TESS_QUEUE_ID))
        throw CtlError(STATUS_NO_CONNECTION, failureText(queuePath(TESS_QUEUE_ID), error, PathOf::daemonQueue));
    long address = wanted.value_or(FIRST_FREE_ADDRESS + ::getpid());
    while (!wanted && queueError(address) == 0)
        address += ADDRESS_STEP;
    checkOwnAddress(address);
    return address;
}

/// Puts a record into tessd's queue, for which it waits while that is full.
/// @return false: the queue is not there, it stays full, or a second signal has come
bool reachesTessd(TOrbAttachmentMsg& record, std::size_t bytes, std::chrono::milliseconds patience)
{
    const auto deadline = std::chrono::steady_clock::now() + patience;
    QueueRoom room;
    bool believed = true; // after a report of room that proved wrong the next wait is a plain pause
    while (g_qMgr.sendMsg(TESS_QUEUE_ID, &record, static_cast<long>(bytes), false) != SEND_DONE) {
        if (queueError(TESS_QUEUE_ID) != 0 || stopAskedAgain() || std::chrono::steady_clock::now() > deadline)
            return false;
        pollfd waitFor{believed ? room.watch(TESS_QUEUE_ID) : -1, POLLOUT, 0};
        believed = ::poll(&waitFor, 1, static_cast<int>(BETWEEN_TRIES.count())) != 1;
    }
    return true;
}

} // namespace

std::string queueDirectory()
{
    const char* directory = std::getenv("TESS_QUEUE_DIR");
    return directory == nullptr || *directory == '\0' ? DEFAULT_QUEUE_DIRECTORY : directory;
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
    const Fd fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (fd.get() < 0) return errno;
    return ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0 ? 0 : errno;
}

bool stopAsked()
{
    return stopSignals != 0;
}

bool stopAskedAgain()
{
    return stopSignals > 1;
}

DaemonClient::DaemonClient(std::optional<long> address)
try : TMsgProc(usableAddress(address), true) {
    catchSignals();
} catch (const CtlError&) {
    throw;
} catch (const std::runtime_error&) { // its reason has been logged
    throw CtlError(STATUS_NO_CONNECTION,
                   queueDirectory() + ": no queue can be opened there: the log has the reason (250001)");
}

void DaemonClient::send(std::uint32_t kind, std::uint32_t tag, std::int32_t len, std::string_view text)
{
    TOrbAttachmentMsg record{.kind = kind, .sender = 0, .tag = tag, .len = len, .text = {}};
    const std::size_t textBytes = text.copy(record.text, sizeof record.text);
    if (reachesTessd(record, MSG_HEADER_BYTES + textBytes, SEND_PATIENCE)) return;
    if (const int error = queueError(TESS_QUEUE_ID))
        throw CtlError(STATUS_NO_CONNECTION, failureText(queuePath(TESS_QUEUE_ID), error, PathOf::daemonQueue));
    throw CtlError(STATUS_NO_ANSWER, queuePath(TESS_QUEUE_ID) + ": the queue stays full: is tessd stuck?");
}

std::size_t DaemonClient::receive(TOrbAttachmentMsg& record)
{
    if (kept_.empty()) return take(record);
    const auto [next, bytes] = std::move(kept_.front());
    kept_.pop_front();
    record = *next;
    return bytes;
}

std::size_t DaemonClient::take(TOrbAttachmentMsg& record)
{
    const long received = g_qMgr.getMsg(&record, MSG_QUEUE_ALL, true);
    if (received < 0) throw CtlError(STATUS_NO_CONNECTION, failureText(queuePath(queueId()), errno, PathOf::ownQueue));
    return static_cast<std::size_t>(received);
}

TOrbAttachmentMsg DaemonClient::reply(std::chrono::seconds patience)
{
    const auto deadline = std::chrono::steady_clock::now() + patience;
    TOrbAttachmentMsg record;
    do {
        const std::size_t bytes = take(record);
        if (bytes > 0 && record.sender == TESS_QUEUE_ID && record.kind != MSG_TEXT) return record;
        if (bytes > 0 && kept_.size() < MOST_KEPT)
            kept_.emplace_back(std::make_unique<TOrbAttachmentMsg>(record), bytes);
        if (stopAsked()) throw CtlError(STATUS_NO_ANSWER, "interrupted");
    } while (std::chrono::steady_clock::now() < deadline);
    throw CtlError(STATUS_NO_ANSWER, queuePath(TESS_QUEUE_ID) + ": no answer from tessd within " +
                                         std::to_string(patience.count()) + " s: is it stuck?");
}

void DaemonClient::askToRegister(std::string_view name, std::uint32_t ports)
{
    std::string text(reinterpret_cast<const char*>(&ports), sizeof ports);
    text += name;
    text += '\0';
    send(MSG_REGISTER, 0, 0, text);
}

TOrbAttachmentMsg DaemonClient::replyToRegister()
try {
    return reply();
} catch (const CtlError&) { // tessd may still carry the registration out, later: it is taken back
    TOrbAttachmentMsg record{.kind = MSG_UNREGISTER, .sender = 0, .tag = 0, .len = 0, .text = {}};
    (void)reachesTessd(record, MSG_HEADER_BYTES, LAST_PATIENCE);
    throw;
}

void DaemonClient::registerAs(std::string_view name, std::uint32_t ports)
{
    askToRegister(name, ports);
    const TOrbAttachmentMsg answer = replyToRegister();
    if (answer.tag == 0) return;
    throw CtlError(STATUS_REFUSED, refusalText(name, textOf(answer)));
}
