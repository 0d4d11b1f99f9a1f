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
constexpr const char* SERIAL_LINE = "/dev/ttyS1";
constexpr in_port_t TELNET_PORT = 23;

Finding lookAtQueue()
{
    const std::string directory = queueDirectory();
    if (::access(directory.c_str(), R_OK | W_OK | X_OK) != 0)
        return {"queue", false, failureText(directory, errno, PathOf::queueDirectory)};
    return {"queue", true, directory + " can be used"};
}

Finding lookAtDaemon()
{
    const std::string path = queuePath(TESS_QUEUE_ID);
    if (const int error = queueError(TESS_QUEUE_ID))
        return {"daemon", false, failureText(path, error, PathOf::daemonQueue)};
    return {"daemon", true, path + " is open"};
}

/// "*" is answered with "0" by the daemon itself.
Finding lookAtSocket(const char* name, LocalPort port)
try {
    TLocalClient client(port, 0, ANSWER_TIME);
    client.sendLine("*", ANSWER_TIME);
    TAnswerReader reader;
    std::string text;
    for (const auto deadline = Clock::now() + ANSWER_TIME; Clock::now() < deadline;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        const TLocalClient::Received received = client.receive(left, text);
        if (received == TLocalClient::Received::closed) return {name, false, client.closedText()};
        if (received != TLocalClient::Received::text) continue;
        const TAnswerReader::Progress progress = reader.take(text);
        if (progress.answers.empty()) continue;
        const bool right = progress.lines.front() == "0";
        return {name, right, std::string(client.path()) + " answers" + (right ? "" : ", but not as tessd does")};
    }
    return {name, false, std::string(client.path()) + ": no answer within 5 s: is tessd stuck?"};
} catch (const TCtlError& error) {
    return {name, false, error.what()};
}

/// Reads up to the greeting. An empty line comes first: tessd takes whoever types at once for a plain client, and does not
/// keep everybody waiting for a second to find out whether there is anything to negotiate.
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

Finding lookAtTelnet()
{
    const std::string where = "127.0.0.1:23";
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(TELNET_PORT);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    Finding finding{"telnet", false, {}};
    const int error =
        fd < 0 ? errno : connectWithin(ANSWER_TIME, fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    if (error != 0) {
        finding.what = failureText(where, error, PathOf::telnet);
    } else if (greets(fd)) {
        finding = {"telnet", true, where + " asks for a name"};
    } else {
        finding.what = where + ": no greeting: are ten others connected?";
    }
    if (fd >= 0) ::close(fd);
    return finding;
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
    users.hidden = ::geteuid() != 0; // other processes may not even be shown
    std::error_code ignored;         // of processes that end meanwhile
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

Finding lookAtSerialLine()
{
    if (::access(SERIAL_LINE, F_OK) != 0) return {"com2", false, failureText(SERIAL_LINE, errno, PathOf::serialLine)};
    const Users users = usersOf(SERIAL_LINE);
    const std::string line = SERIAL_LINE;
    if (users.tessd) return {"com2", true, line + " is open in " + users.names};
    if (users.hidden && users.names.empty())
        return {"com2", true, line + " exists; root could see which programs have it open"};
    if (users.hidden)
        return {"com2", true,
                line + " is open in " + users.names + "; root could see whether other programs have it open, too"};
    if (!users.names.empty()) return {"com2", false, line + " is open in " + users.names + ", not in tessd"};
    return {"com2", false, line + " is open in no process: does tessd run with the COM2 port?"};
}

} // namespace

Finding look(std::string_view name)
{
    if (name == "queue") return lookAtQueue();
    if (name == "daemon") return lookAtDaemon();
    if (name == "ipc") return lookAtSocket("ipc", LocalPort::ipc);
    if (name == "xcp") return lookAtSocket("xcp", LocalPort::xcp);
    if (name == "telnet") return lookAtTelnet();
    return lookAtSerialLine();
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
