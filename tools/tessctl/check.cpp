#include "tools/tessctl/check.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <netinet/in.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

#include "framework/fd.h"
#include "framework/tess_messages.h"
#include "tools/tessctl/answer_reader.h"
#include "tools/tessctl/bounded_connect.h"
#include "tools/tessctl/daemon_client.h"
#include "tools/tessctl/likely_cause.h"
#include "tools/tessctl/local_client.h"
#include "tools/tessctl/say.h"
#include "tools/tessctl/standard_output.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds ANSWER_TIME{5000};
constexpr std::chrono::milliseconds GREETING_TIME{10'000}; // other clients that negotiate are served first

/// What a look has found out.
struct Seen {
    bool ok;
    std::string what; ///< in words
};

Seen lookAtQueue()
{
    const std::string directory = queueDirectory();
    if (::access(directory.c_str(), R_OK | W_OK | X_OK) != 0)
        return {false, failureText(directory, errno, PathOf::queueDirectory)};
    return {true, directory + " can be used"};
}

Seen lookAtDaemon()
{
    const std::string path = queuePath(TESS_QUEUE_ID);
    if (const int error = queueError(TESS_QUEUE_ID)) return {false, failureText(path, error, PathOf::daemonQueue)};
    return {true, path + " is open"};
}

/// "*" is answered with "0" by the daemon itself.
Seen lookAtSocket(LocalPort port)
try {
    LocalClient client(port, 0, ANSWER_TIME);
    client.sendLine("*", ANSWER_TIME);
    AnswerReader reader;
    std::string text;
    for (const auto deadline = Clock::now() + ANSWER_TIME; Clock::now() < deadline;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        const LocalClient::Received received = client.receive(left, text);
        if (received == LocalClient::Received::closed) return {false, client.closedText()};
        if (received != LocalClient::Received::text) continue;
        const AnswerReader::Progress progress = reader.take(text);
        if (progress.answers.empty()) continue;
        const bool right = progress.lines.front() == "0";
        return {right, std::string(client.path()) + " answers" + (right ? "" : ", but not as tessd does")};
    }
    return {false, std::string(client.path()) + ": no answer within 5 s: is tessd stuck?"};
} catch (const CtlError& error) {
    return {false, error.what()};
}

/// Sends an empty line and reads until tessd asks for the user's name. Without that line tessd
/// would first wait a second for telnet options to negotiate; from a client that types at once it
/// expects none.
bool greets(int fd)
{
    if (::send(fd, "\r\n", 2, MSG_NOSIGNAL) != 2) return false;
    std::string received;
    for (const auto deadline = Clock::now() + GREETING_TIME; Clock::now() < deadline;) {
        pollfd input{fd, POLLIN, 0};
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        if (::poll(&input, 1, static_cast<int>(left.count())) <= 0) continue;
        std::array<char, 512> bytes{};
        const ssize_t count = ::recv(fd, bytes.data(), bytes.size(), 0);
        if (count <= 0) return false;
        received.append(bytes.data(), static_cast<std::size_t>(count));
        if (received.find("UserName:") != std::string::npos) return true;
    }
    return false;
}

Seen lookAtTelnet()
{
    const std::string where = "127.0.0.1:" + std::to_string(TELNET_TCP_PORT);
    const Fd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(TELNET_TCP_PORT);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int error = fd.get() < 0 ? errno
                                   : connectWithin(ANSWER_TIME, fd.get(), reinterpret_cast<const sockaddr*>(&address),
                                                   sizeof address);
    if (error != 0) return {false, failureText(where, error, PathOf::telnet)};
    if (!greets(fd.get())) return {false, where + ": no greeting: are ten others connected?"};
    return {true, where + " asks for a name"};
}

/// Who has a device open.
struct Users {
    std::string names;   ///< of those whose descriptors this user may see
    bool tessd = false;  ///< is among them
    bool hidden = false; ///< there may be others
};

Users usersOf(const fs::path& device)
{
    Users users;
    users.hidden = ::geteuid() != 0; // /proc may be set up to show a user only his own processes
    std::error_code ignored;         // a process may end while it is looked at
    const fs::path target = fs::canonical(device, ignored);
    for (const fs::directory_entry& process : fs::directory_iterator("/proc", ignored)) {
        const std::string number = process.path().filename();
        if (number.find_first_not_of("0123456789") != std::string::npos) continue;
        std::error_code error;
        fs::directory_iterator each(process.path() / "fd", error);
        users.hidden = users.hidden || error == std::errc::permission_denied;
        for (const fs::directory_iterator end; each != end; each.increment(ignored)) {
            if (fs::read_symlink(each->path(), ignored) != target) continue;
            std::string name;
            std::getline(std::ifstream(process.path() / "comm"), name);
            users.tessd = users.tessd || name == "tessd";
            users.names.append(users.names.empty() ? "" : ", ").append(name).append(" (").append(number).append(")");
            break;
        }
    }
    return users;
}

Seen lookAtSerialLine()
{
    if (::access(COM2_DEVICE, F_OK) != 0) return {false, failureText(COM2_DEVICE, errno, PathOf::serialLine)};
    const Users users = usersOf(COM2_DEVICE);
    const std::string line = COM2_DEVICE;
    if (users.tessd) return {true, line + " is open in " + users.names};
    if (users.hidden && users.names.empty()) return {true, line + " exists; only root can see who has it open"};
    if (users.hidden) return {true, line + " is open in " + users.names + "; only root can see who else has it open"};
    if (!users.names.empty()) return {false, line + " is open in " + users.names + ", not in tessd"};
    return {false, line + " is open in no process: does tessd run with the COM2 port?"};
}

/// Everything that can be looked at, in the order in which it is shown.
struct Check {
    const char* name;
    Seen (*look)();
};

constexpr Check CHECKS[] = {
    {"queue", lookAtQueue},
    {"daemon", lookAtDaemon},
    {"ipc", [] { return lookAtSocket(LocalPort::ipc); }},
    {"xcp", [] { return lookAtSocket(LocalPort::xcp); }},
    {"telnet", lookAtTelnet},
    {"com2", lookAtSerialLine},
};

} // namespace

std::vector<std::string> allChecks()
{
    std::vector<std::string> names;
    for (const Check& check : CHECKS)
        names.emplace_back(check.name);
    return names;
}

Finding look(std::string_view name)
{
    const Check& check =
        *std::ranges::find(CHECKS, name, [](const Check& each) { return std::string_view(each.name); });
    Seen seen = check.look();
    return {check.name, seen.ok, std::move(seen.what)};
}

ExitStatus runCheck(bool json, const std::vector<std::string>& names)
{
    nlohmann::ordered_json report{{"ok", true}, {"checks", nlohmann::json::array()}};
    bool ok = true;
    for (const std::string& name : names) {
        const Finding finding = look(name);
        ok = ok && finding.ok;
        if (json) {
            report["checks"].push_back(
                nlohmann::ordered_json{{"name", finding.name}, {"ok", finding.ok}, {"what", finding.what}});
        } else {
            std::cout << (finding.ok ? "ok      " : "FAILED  ") << finding.name
                      << std::string(8 - finding.name.size(), ' ') << finding.what << '\n';
            requireOutput();
        }
    }
    report["ok"] = ok;
    if (json) std::cout << report.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << '\n';
    requireOutput();
    return ok ? STATUS_DONE : STATUS_REFUSED;
}

ExitStatus runPing(std::string_view name)
{
    const auto start = Clock::now();
    const Finding finding = look(name == "queue" ? "daemon" : name);
    if (!finding.ok) {
        say(finding.what);
        return STATUS_REFUSED;
    }
    const auto took = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    std::cout << finding.what << " (" << took << " ms)\n";
    requireOutput();
    return STATUS_DONE;
}
