// The daemon as a whole, with all four ports open on their real paths and its queue, on a device of
// its own: one input is a script of what clients, processes and time do to it.
//
// A script is a row of actions, each a byte and what it needs. The lower 4 bits of the byte say
// what happens, the upper 4 to whom (modulo how many there are):
//
//   0 a client connects to /tmp/socket    1 ... to /tmp/xcp    2 ... to TCP port 23
//   3 a client sends: 1 byte, its upper bit for "urgent", the rest a length, then the bytes
//   4 a client sends up to 3000 bytes: 2 bytes length, then the bytes
//   5 a client sends an XCP frame: 2 bytes tag, 1 byte length, payload
//   6 a client closes    7 ... ends its direction only    8 ... resets
//   9 somebody types at the serial line: 1 byte length, then the bytes; upper bits 8 and above: the
//     line takes nothing from here on, or takes it again
//  10 a process registers: 1 byte port mask, 1 byte of which the lower 3 bits are a length, a name
//  11 a process sends a record: 1 byte kind (from 200, or 100 to 102), 4 bytes tag, 4 bytes len,
//     1 byte length, text
//  12 the processes take what has come for them; 0 in the upper bits: without an answer
//  13 time passes: 2 bytes, milliseconds
//  14 what has a thread of its own comes to its end
//  15 a process dies or begins; upper bits 8 and above: forks fail from here on, or no more
//
// After each action the service loop has a turn; the message loop has one after 10, 11, 13 and 14.
// The two loops have no threads, so that the same input always does the same.
#include <array>
#include <cstring>
#include <memory>
#include <optional>
#include <sys/un.h>
#include <vector>

#include "framework/fixed_text.h"
#include "framework/queue_mgr.h"
#include "framework/version_re_init.h"
#include "tests/daemon/daemon_test_bench.h"
#include "tests/fuzz/fuzz_check.h"
#include "tests/fuzz/fuzz_clock.h"
#include "tests/fuzz/fuzz_input.h"
#include "tests/fuzz/fuzz_setup.h"
#include "tests/fuzz/held_threads.h"
#include "tests/support/passwd_file.h"
#include "tests/support/pty_line.h"
#include "tests/support/tcp_pair.h"

namespace {

bool reInitFails = false;
pid_t forkResult = 0; ///< of the daemon; 0: it is not the daemon that forks

} // namespace

// The linker's option --wrap leads fork() here: the device is never restarted.
extern "C" {

pid_t __real_fork();
pid_t __wrap_fork();

pid_t __wrap_fork()
{
    return forkResult != 0 ? forkResult : __real_fork();
}
}

// In place of the framework's own, which is then not linked in: no program is started.
int versionReInit()
{
    return reInitFails ? 1 : 0;
}

namespace {

/// alice has the password "secret"; its hash is quickly made.
constexpr const char* USERS = "alice:$1$abcdefgh$cHJi5PXp/ki/ktXzqlk6I1:1001:1002:Alice:/home/alice:/bin/sh\n";
constexpr std::size_t MOST_CLIENTS = 14;
constexpr std::size_t PROCESSES = 3;
constexpr std::chrono::milliseconds TURN{1};

class Client {
public:
    enum Kind { ipc, xcp, telnet };

    explicit Client(Kind kind) : kind_(kind), fd_(connected(kind)) {}

    void send(std::string_view bytes, int flags = 0) const
    {
        if (fd_.get() < 0) return;
        (void)::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT | flags); // or it is lost
    }

    void sendFrame(std::uint16_t tag, const std::string& payload) const
    {
        const std::array<std::uint32_t, 4> header{0, 0, tag, static_cast<std::uint32_t>(payload.size())};
        send(std::string(reinterpret_cast<const char*>(header.data()), sizeof header) + payload);
    }

    void shutDown() const
    {
        if (fd_.get() >= 0) ::shutdown(fd_.get(), SHUT_WR);
    }

    void close() { fd_.reset(); }

    /// Leaves nothing behind in the kernel either.
    void reset()
    {
        const linger now{1, 0};
        if (kind_ == telnet && fd_.get() >= 0) ::setsockopt(fd_.get(), SOL_SOCKET, SO_LINGER, &now, sizeof now);
        close();
    }

    void receive()
    {
        if (fd_.get() < 0) return;
        char part[4096];
        for (ssize_t n; (n = ::recv(fd_.get(), part, sizeof part, MSG_DONTWAIT)) > 0;)
            if (kind_ == xcp) received_.append(part, static_cast<std::size_t>(n));
        checkFrames();
    }

private:
    static Fd connected(Kind kind)
    {
        if (kind == telnet) return Fd(TcpClient::connectTo(TELNET_TCP_PORT));
        sockaddr_un name{};
        name.sun_family = AF_UNIX;
        putText(name.sun_path, kind == ipc ? IPC_SOCKET_PATH : XCP_SOCKET_PATH);
        Fd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0) fd.reset();
        return fd;
    }

    /// A client of /tmp/xcp gets whole frames.
    void checkFrames()
    {
        std::array<std::uint32_t, 4> header{};
        while (received_.size() >= sizeof header) {
            std::memcpy(header.data(), received_.data(), sizeof header);
            fuzzCheck(header[3] <= MSG_TEXT_BYTES, "a frame has at most a record's text");
            if (received_.size() < sizeof header + header[3]) return;
            received_.erase(0, sizeof header + header[3]);
        }
    }

    Kind kind_;
    Fd fd_;
    std::string received_;
};

int nextDescriptor()
{
    const int fd = ::dup(STDIN_FILENO);
    ::close(fd);
    return fd;
}

/// The device, from its start to the daemon's end.
class Device {
public:
    Device()
    {
        line_.plugInto(COM2_DEVICE);
        {
            const SignalsRestored beforeDaemon; // a fault is the sanitizer's to report
            tess_ = std::make_unique<TTess>(TESS_QUEUE_ID, true, true, true, true);
        }
        peer_.emplace(*tess_);
        g_wakeUp.clear();
        forkResult = 4711;
        for (std::size_t i = 0; i < PROCESSES; ++i)
            turnOver(i);
        turn();
    }
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;
    ~Device()
    {
        for (Client& client : clients_)
            client.reset();
        peer_->clearRegistry(); // the daemon leaves its records behind
        tess_.reset();
        HeldThreads::forget();
        reInitFails = false;
        forkResult = 0;
    }

    void act(FuzzInput& input)
    {
        const std::uint8_t action = input.byte();
        const std::size_t whom = action >> 4U;
        switch (action & 15U) {
        case 0:
        case 1:
        case 2:
            if (clients_.size() < MOST_CLIENTS) clients_.emplace_back(static_cast<Client::Kind>(action & 15U));
            break;
        case 9:
            actAtLine(whom, input);
            break;
        case 10:
        case 11:
            sendRecord(whom % PROCESSES, (action & 15U) == 10 ? registrationFrom(input) : recordFrom(input));
            break;
        case 12:
            takeRecords(whom != 0);
            break;
        case 13:
            pass(std::chrono::milliseconds(input.number<std::uint16_t>()));
            serveQueue();
            break;
        case 14:
            endThreads(whom >= 8);
            break;
        case 15:
            if (whom >= 8)
                forkResult = -forkResult;
            else
                turnOver(whom % PROCESSES);
            break;
        default:
            if (!clients_.empty()) actOfClient(clients_[whom % clients_.size()], action & 15U, input);
        }
        turn();
    }

    void finish()
    {
        endThreads(false);
        for (int turns = 0; turns < 4; ++turns) {
            takeRecords(true);
            pass(std::chrono::milliseconds(300));
            turn();
            serveQueue();
        }
    }

private:
    static void actOfClient(Client& client, unsigned what, FuzzInput& input)
    {
        switch (what) {
        case 3: {
            const std::uint8_t length = input.byte();
            client.send(input.take(length & 0x7FU), (length & 0x80U) != 0 ? MSG_OOB : 0);
            break;
        }
        case 4:
            client.send(input.chunk(3000));
            break;
        case 5: {
            const std::uint16_t tag = input.number<std::uint16_t>();
            client.sendFrame(tag, input.take(input.byte()));
            break;
        }
        case 6:
            client.close();
            break;
        case 7:
            client.shutDown();
            break;
        default:
            client.reset();
        }
    }

    static Outgoing registrationFrom(FuzzInput& input)
    {
        const std::uint8_t mask = input.byte();
        const std::uint8_t length = input.byte();
        return registration(mask, input.take(length & 7U), length < 128);
    }

    static Outgoing recordFrom(FuzzInput& input)
    {
        const std::uint32_t kind = input.byte() % 9U;
        Outgoing out;
        out.record.kind = kind < 6 ? MSG_REGISTER + kind : MSG_STOP + kind - 6;
        out.record.tag = input.number<std::uint32_t>();
        out.record.len = input.number<std::int32_t>();
        const std::string text = input.take(input.byte());
        std::memcpy(out.record.text, text.data(), text.size());
        out.length += text.size();
        return out;
    }

    void actAtLine(std::size_t whom, FuzzInput& input)
    {
        if (whom >= 8) {
            lineTakes_ = !lineTakes_;
            return;
        }
        const std::string bytes = input.take(input.byte());
        if (!bytes.empty()) (void)line_.type(bytes); // a line that is full loses it
    }

    void endThreads(bool badly)
    {
        reInitFails = badly;
        HeldThreads::run();
        serveQueue();
    }

    void pass(std::chrono::milliseconds time) { clock_.pass(time); }

    /// The message loop serves what is in the queue, up to a stop message behind it.
    void serveQueue()
    {
        const QueueProcess stopper(directory_, 9999);
        const Outgoing stop = message(MSG_STOP);
        while (!stopper.send(TESS_QUEUE_ID, stop.record, stop.length))
            (void)g_qMgr.getMsg(std::make_unique<TOrbAttachmentMsg>().get(), MSG_QUEUE_ALL, false); // full: make room
        (void)tess_->run();                                                                         // always 0
    }

    void sendRecord(std::size_t i, const Outgoing& out)
    {
        if (!processes_[i] || !processes_[i]->send(TESS_QUEUE_ID, out.record, out.length)) return;
        serveQueue();
    }

    void turnOver(std::size_t i)
    {
        if (processes_[i])
            processes_[i].reset();
        else
            processes_[i].emplace(directory_, 2001 + static_cast<long>(i));
    }

    /// Commands are as processes may rely on; their answers go back if need be.
    void takeRecords(bool answer)
    {
        for (std::size_t i = 0; i < PROCESSES; ++i) {
            if (!processes_[i]) continue;
            for (const Received& received : processes_[i]->receiveAll()) {
                if (received.record.kind != MSG_TEXT) continue;
                const std::string_view text = received.textBytes();
                fuzzCheck(text.ends_with(std::string_view("\n\0", 2)) && text.find('\0') == text.size() - 1,
                          "a command ends with LF and NUL, and has no other NUL");
                fuzzCheck(text.find('|') == std::string_view::npos, "a command has no separator");
                if (answer) sendRecord(i, message(MSG_REPLY, "done\r\n\r\n", received.record.tag));
            }
        }
    }

    void turn()
    {
        pass(TURN);
        peer_->serve();
        for (Client& client : clients_)
            client.receive();
        if (lineTakes_) (void)line_.received(); // whatever it is
    }

    FuzzClock clock_;
    TempQueueDir directory_;
    PtyLine line_;
    bool lineTakes_ = true;
    std::unique_ptr<TTess> tess_;
    std::optional<TessPeer> peer_;
    std::array<std::optional<QueueProcess>, PROCESSES> processes_;
    std::vector<Client> clients_;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    needNamespaces();
    static const PasswdFile passwords(USERS);
    static bool isFirst = true;
    if (isFirst) {
        const Device warmUp;
    } // some descriptors are opened once and kept
    isFirst = false;
    const int before = nextDescriptor();
    {
        FuzzInput input(data, size);
        Device device;
        for (int actions = 0; !input.empty() && actions < 200; ++actions)
            device.act(input);
        device.finish();
    }
    fuzzCheck(nextDescriptor() == before, "every descriptor is closed again");
    return 0;
}
