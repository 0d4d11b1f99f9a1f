// Asks a router, for a while, and prints as one line of JSON how long the answers took.
//
//   bench_load PROTOCOL PATH [--clients N] [--in-flight N] [--seconds S | --count N]
//              [--warm-up N] [--text N] [--answer N]
//              [--idle N] [--hold] [--watch PID]
//
// Each client has so many commands under way, and sends as many new ones as answers have come. Idle
// clients are connected and say nothing. --hold: connects the idle ones, prints an empty line and
// does nothing until its input ends. --watch: the processor time of that process meanwhile is
// measured too.
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <string>
#include <string_view>
#include <sys/epoll.h>
#include <unistd.h>
#include <vector>

#include "bench/programs/latencies.h"
#include "bench/programs/protocol.h"
#include "bench/programs/stream.h"

namespace {

struct Options {
    std::string protocol;
    std::string path;
    int clients = 1;
    std::size_t inFlight = 1;
    double seconds = 1;
    std::uint64_t count = 0; ///< 0: for so many seconds
    std::uint64_t warmUp = 200;
    std::size_t text = 14;
    std::size_t answer = 5;
    int idle = 0;
    bool hold = false;
    int watch = 0;
};

Options readOptions(int argc, char** argv)
{
    Options options;
    if (argc < 3) std::exit(64);
    options.protocol = argv[1];
    options.path = argv[2];
    for (int i = 3; i < argc; ++i) {
        const std::string_view name = argv[i];
        if (name == "--hold") {
            options.hold = true;
            continue;
        }
        if (++i == argc) std::exit(64);
        const double value = std::strtod(argv[i], nullptr);
        if (name == "--clients")
            options.clients = static_cast<int>(value);
        else if (name == "--in-flight")
            options.inFlight = static_cast<std::size_t>(value);
        else if (name == "--seconds")
            options.seconds = value;
        else if (name == "--count")
            options.count = static_cast<std::uint64_t>(value);
        else if (name == "--warm-up")
            options.warmUp = static_cast<std::uint64_t>(value);
        else if (name == "--text")
            options.text = static_cast<std::size_t>(value);
        else if (name == "--answer")
            options.answer = static_cast<std::size_t>(value);
        else if (name == "--idle")
            options.idle = static_cast<int>(value);
        else if (name == "--watch")
            options.watch = static_cast<int>(value);
        else
            std::exit(64);
    }
    return options;
}

struct Client {
    int fd;
    int number;
    std::string input;
    std::deque<std::uint64_t> asked; ///< when the commands under way went out
};

class Load {
public:
    explicit Load(const Options& options)
        : options_(options), protocol_(makeProtocol(options.protocol, options.text, options.answer)),
          poll_(::epoll_create1(EPOLL_CLOEXEC))
    {
        for (int i = 0; i < options.idle; ++i)
            (void)connectClient(1000 + i);
    }

    void run()
    {
        for (int i = 0; i < options_.clients; ++i) {
            clients_.push_back({connectClient(i), i, {}, {}});
            epoll_event event{EPOLLIN, {.u32 = static_cast<std::uint32_t>(i)}};
            (void)::epoll_ctl(poll_, EPOLL_CTL_ADD, clients_.back().fd, &event);
        }
        for (Client& client : clients_)
            ask(client, options_.inFlight);
        while (warmedUp_ < options_.warmUp)
            turn();
        const std::uint64_t usedBefore = used();
        const std::uint64_t begin = nanosecondsNow();
        const std::uint64_t end = begin + static_cast<std::uint64_t>(options_.seconds * 1e9);
        measuring_ = true;
        while (options_.count > 0 ? latencies_.count() < options_.count : now_ < end)
            turn();
        report(now_ - begin, used() - usedBefore);
    }

private:
    int connectClient(int number)
    {
        const int fd = connectTo(options_.path.c_str());
        if (fd < 0) giveUp(options_.path);
        protocol_->begin(fd, number);
        return fd;
    }

    std::uint64_t used() const { return options_.watch > 0 ? processorNanoseconds(options_.watch) : 0; }

    void ask(Client& client, std::size_t commands)
    {
        output_.clear();
        for (std::size_t i = 0; i < commands; ++i)
            output_ += protocol_->request(client.number);
        const std::uint64_t now = nanosecondsNow();
        client.asked.insert(client.asked.end(), commands, now);
        writeAll(client.fd, output_);
    }

    void serve(Client& client)
    {
        if (!readSome(client.fd, client.input)) giveUp("the router is gone");
        now_ = nanosecondsNow();
        const std::size_t answers = protocol_->takeAnswers(client.input);
        for (std::size_t i = 0; i < answers; ++i) {
            if (client.asked.empty()) giveUp("an answer to nothing");
            if (measuring_) latencies_.add(now_ - client.asked.front());
            client.asked.pop_front();
        }
        warmedUp_ += answers;
        if (answers > 0) ask(client, answers);
    }

    void turn()
    {
        if (clients_.size() == 1) return serve(clients_.front());
        std::array<epoll_event, 64> events;
        const int ready = ::epoll_wait(poll_, events.data(), events.size(), 5000);
        if (ready <= 0) giveUp("no answers");
        for (int i = 0; i < ready; ++i)
            serve(clients_[events[static_cast<std::size_t>(i)].data.u32]);
    }

    void report(std::uint64_t took, std::uint64_t used)
    {
        std::printf("{\"commands\":%zu,\"nanoseconds\":%llu,\"router_nanoseconds\":%llu,\"quantiles\":%s}\n",
                    latencies_.count(), static_cast<unsigned long long>(took), static_cast<unsigned long long>(used),
                    latencies_.quantiles().c_str());
    }

    Options options_;
    std::unique_ptr<Protocol> protocol_;
    int poll_;
    std::vector<Client> clients_;
    std::string output_;
    Latencies latencies_;
    std::uint64_t now_ = 0;
    std::uint64_t warmedUp_ = 0;
    bool measuring_ = false;
};

} // namespace

int main(int argc, char** argv)
{
    const Options options = readOptions(argc, argv);
    Load load(options);
    if (!options.hold) {
        load.run();
        return 0;
    }
    std::puts("");
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
    return 0;
}
