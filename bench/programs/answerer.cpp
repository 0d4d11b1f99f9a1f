// The process behind a router: answers each command with a text of a fixed length.
//
//   bench_answerer queue ADDRESS NAME BYTES         a queue of the framework; registers as NAME,
//                                                   or does not when it is "-"
//   bench_answerer dbus|mqtt|redis PATH - BYTES     a client of the router at PATH
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>

#include "bench/programs/protocol.h"
#include "bench/programs/stream.h"

namespace {

constexpr std::size_t HEADER = 16;
constexpr std::uint32_t TEXT = 101, REPLY = 102, REGISTER = 200;

struct Record {
    std::array<std::uint32_t, 4> words; // kind, sender, tag, length
    std::array<char, 8192 - HEADER> text;
};

sockaddr_un queueOf(const char* address)
{
    sockaddr_un path{};
    path.sun_family = AF_UNIX;
    std::strncpy(path.sun_path, (std::string("/run/tess/queue/") + address).c_str(), sizeof path.sun_path - 1);
    return path;
}

void sendRecord(int fd, const Record& record, std::size_t textBytes)
{
    static const sockaddr_un router = queueOf("1001");
    if (::sendto(fd, &record, HEADER + textBytes, 0, reinterpret_cast<const sockaddr*>(&router), sizeof router) < 0)
        giveUp("sendto");
}

void registerAs(int fd, std::string_view name)
{
    Record record{};
    record.words[0] = REGISTER;
    const std::uint32_t allPorts = 15;
    std::memcpy(record.text.data(), &allPorts, sizeof allPorts);
    name.copy(record.text.data() + sizeof allPorts, name.size());
    sendRecord(fd, record, sizeof allPorts + name.size() + 1);
}

void answerFromQueue(const char* address, std::string_view name, std::size_t bytes)
{
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_un own = queueOf(address);
    if (fd < 0 || ::bind(fd, reinterpret_cast<const sockaddr*>(&own), sizeof own) != 0) giveUp(own.sun_path);
    const int buffer = 6 * 1024 * 1024;                                         // as a queue of the framework has it
    (void)::setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &buffer, sizeof buffer); // without the right it does with less
    if (name != "-") registerAs(fd, name);
    static Record command;
    static Record answer;
    std::fill_n(answer.text.begin(), bytes, '0');
    answer.words[0] = REPLY;
    while (::recv(fd, &command, sizeof command, 0) >= static_cast<ssize_t>(HEADER)) {
        if (command.words[0] != TEXT) continue;
        answer.words[2] = command.words[2];
        sendRecord(fd, answer, bytes + 1);
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 5) return 64;
    const std::string_view kind = argv[1];
    const std::size_t bytes = std::strtoul(argv[4], nullptr, 10);
    if (kind == "queue") {
        answerFromQueue(argv[2], argv[3], bytes);
        return 1;
    }
    const int fd = connectTo(argv[2]);
    if (fd < 0) giveUp(argv[2]);
    if (kind == "dbus") answerAsDbusService(fd, bytes);
    if (kind == "mqtt") answerAsMqttClient(fd, bytes);
    if (kind == "redis") answerAsRedisClient(fd, bytes);
    return 1; // the router is gone
}
