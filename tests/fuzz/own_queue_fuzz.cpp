// Datagrams of any size, from sockets of any name, to a process's own queue: which records come
// out, in which order and from whom, is compared with a model.
#include "framework/bundled/own_queue.h"

#include <cstring>
#include <deque>
#include <optional>

#include "framework/queue_mgr.h"
#include "framework/tess_messages.h"
#include "tests/fuzz/fuzz_check.h"
#include "tests/fuzz/fuzz_input.h"
#include "tests/support/queue_process.h"
#include "tests/support/quiet_proc.h"

using namespace std::string_literals;

namespace {

struct Datagram {
    std::string bytes;
    std::int32_t sender;

    bool isRecord() const { return bytes.size() >= MSG_HEADER_BYTES && bytes.size() <= MSG_RECORD_BYTES; }
};

/// @return the address that a file name stands for, 0: none
std::int32_t addressOf(const std::string& name)
{
    if (name.empty() || name.size() > 10 || name[0] == '0') return 0;
    std::int64_t address = 0;
    for (const char c : name) {
        if (c < '0' || c > '9') return 0;
        address = address * 10 + (c - '0');
    }
    return address <= INT32_MAX ? static_cast<std::int32_t>(address) : 0;
}

class Session {
public:
    /// @param name  of the sender's socket in the queue directory; none: it has no name
    void send(const std::optional<std::string>& name, bool abstract, const std::string& bytes)
    try {
        const std::string path = name ? directory_ / *name : ""s;
        const std::string bound = abstract ? '\0' + path : path;
        const RawSocket from = name ? RawSocket(bound) : RawSocket();
        if (from.sendTo(directory_.pathOf(ADDRESS), bytes.data(), bytes.size()))
            onTheWay_.push_back({bytes, name && !abstract ? addressOf(*name) : 0});
        if (name && !abstract) ::unlink(path.c_str());
    } catch (const std::runtime_error&) { // nobody can have that name
    }

    void receive()
    {
        TOrbAttachmentMsg record;
        std::memset(static_cast<void*>(&record), 0x5A, sizeof record);
        const long length = g_qMgr.getMsg(&record, MSG_QUEUE_ALL, false);
        if (kept_.empty() && onTheWay_.empty()) {
            fuzzCheck(length == 0, "nothing comes of nothing");
            return;
        }
        std::deque<Datagram>& from = kept_.empty() ? onTheWay_ : kept_;
        const Datagram expected = from.front();
        from.pop_front();
        if (!expected.isRecord()) {
            fuzzCheck(length == 0, "what is no record is dropped");
            return;
        }
        fuzzCheck(length == static_cast<long>(expected.bytes.size()), "a record has its length");
        fuzzCheck(record.sender == expected.sender, "a record has its sender, whatever that one says");
        TOrbAttachmentMsg whole{};
        std::memcpy(&whole, expected.bytes.data(), expected.bytes.size());
        whole.sender = expected.sender;
        fuzzCheck(std::memcmp(&whole, &record, sizeof whole) == 0, "a record has its bytes, and zeros behind them");
    }

    void drain()
    {
        bool some = false;
        for (int i = 0; i < 64 && !onTheWay_.empty(); ++i) {
            const Datagram next = onTheWay_.front();
            onTheWay_.pop_front();
            if (!next.isRecord()) break;
            kept_.push_back(next);
            some = true;
        }
        const OwnQueue::Drained drained = ownQueue.drain();
        fuzzCheck(drained == (some ? OwnQueue::Drained::records : OwnQueue::Drained::nothing),
                  "it is told whether records were taken aside");
    }

    bool isEmpty() const { return kept_.empty() && onTheWay_.empty(); }

private:
    static constexpr long ADDRESS = 1001;

    TempQueueDir directory_;
    QuietProc queue_{ADDRESS};
    std::deque<Datagram> onTheWay_;
    std::deque<Datagram> kept_; ///< taken aside
};

/// A name as others may choose it. It leads to no other directory.
std::string nameFrom(FuzzInput& input)
{
    static const std::string names[] = {"2001", "1", "2147483647", "2147483648", "07", "+5", "5 ", "1001"};
    const std::uint8_t choice = input.byte();
    if (choice < 160) return names[choice % std::size(names)];
    std::string name = input.take(choice % 24U);
    std::erase_if(name, [](char c) { return c == '\0' || c == '.'; });
    return name.empty() ? "0" : name;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzInput input(data, size);
    Session session;
    for (int actions = 0; !input.empty() && actions < 200; ++actions) {
        const std::uint8_t choice = input.byte();
        switch (choice & 7U) {
        case 0:
            session.drain();
            break;
        case 1:
        case 2:
            session.receive();
            break;
        case 3:
            session.send(std::nullopt, false, input.chunk(9000));
            break;
        default: {
            const std::string name = nameFrom(input);
            std::string bytes = choice < 192 ? input.take(input.byte()) : input.chunk(9000);
            if (choice % 64 == 63) bytes.resize(MSG_RECORD_BYTES - 8 + input.byte() % 16U);
            session.send(name, (choice & 32U) != 0, bytes);
        }
        }
    }
    while (!session.isEmpty())
        session.receive();
    session.receive();
    return 0;
}
