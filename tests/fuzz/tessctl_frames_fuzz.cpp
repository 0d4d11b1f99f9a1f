// What tessctl makes of the bytes that arrive over /tmp/xcp, whoever listens there, and in whatever
// pieces; compared with a model.
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "framework/fixed_text.h"
#include "framework/tess_messages.h"
#include "tests/fuzz/fuzz_check.h"
#include "tests/fuzz/fuzz_input.h"
#include "tests/fuzz/fuzz_setup.h"
#include "tools/tessctl/local_client.h"

namespace {

struct FrameHeader {
    std::uint32_t word0, word1, tag, length;
};

int listenAtXcp()
{
    needNamespaces();
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    putText(name.sun_path, XCP_SOCKET_PATH);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0 || ::listen(fd, 1) != 0) std::abort();
    return fd;
}

/// The texts of the whole frames, each up to its NUL.
std::string textsOf(std::string_view bytes)
{
    std::string texts;
    FrameHeader header;
    while (bytes.size() >= sizeof header) {
        std::memcpy(&header, bytes.data(), sizeof header);
        bytes.remove_prefix(sizeof header);
        if (bytes.size() < header.length) break;
        const std::string_view payload = bytes.substr(0, header.length);
        texts += payload.substr(0, payload.find('\0'));
        bytes.remove_prefix(header.length);
    }
    return texts;
}

/// A frame, sometimes one that lies about its length, or anything at all.
std::string nextBytes(FuzzInput& input)
{
    const std::uint8_t choice = input.byte();
    if (choice % 8 == 0) return input.chunk(64);
    const std::string payload = choice % 8 == 7 ? input.chunk(20'000) : input.take(input.byte() % 64U);
    FrameHeader header{0, 0, input.byte(), static_cast<std::uint32_t>(payload.size())};
    if (choice % 8 == 1) header.length = input.number<std::uint32_t>();
    if (choice % 8 == 2) header.length += input.byte();
    std::string bytes(sizeof header, '\0');
    std::memcpy(bytes.data(), &header, sizeof header);
    return bytes + payload;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const int listener = listenAtXcp();
    FuzzInput input(data, size);
    LocalClient client(LocalPort::xcp, 7, std::chrono::milliseconds(1000));
    const Fd server(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    std::string sent;
    std::string texts;
    std::string text;
    while (!input.empty()) {
        const std::string bytes = nextBytes(input);
        if (::send(server.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size()))
            sent += bytes;
        for (LocalClient::Received received = LocalClient::Received::text; received == LocalClient::Received::text;) {
            received = client.receive(std::chrono::milliseconds(0), text);
            fuzzCheck(received != LocalClient::Received::closed, "the connection is open");
            texts += text;
        }
    }
    // A read that ends no frame is no text, and ended the loop above.
    for (std::size_t reads = 0; reads <= sent.size() / 16384 + 1; ++reads) {
        (void)client.receive(std::chrono::milliseconds(0), text); // it is open, see above
        texts += text;
    }
    fuzzCheck(texts == textsOf(sent), "the texts are those of the frames");
    return 0;
}
