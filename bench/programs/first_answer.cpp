// Starts a router and prints how many nanoseconds later the first answer came; then ends it, and
// prints its process number's end.
//
//   bench_first_answer PROTOCOL PATH COMMAND [ARGUMENT]...
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "bench/programs/latencies.h"
#include "bench/programs/protocol.h"
#include "bench/programs/stream.h"

namespace {

int connectWhenThere(const char* path)
{
    for (int tries = 0; tries < 100'000; ++tries) {
        const int fd = connectTo(path);
        if (fd >= 0) return fd;
        if (errno != ENOENT && errno != ECONNREFUSED) break;
        (void)::usleep(50); // the processor is the router's
    }
    giveUp(path);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 4) return 64;
    const auto protocol = makeProtocol(argv[1], 14, 5);
    const std::uint64_t begin = nanosecondsNow();
    const pid_t router = ::vfork();
    if (router == 0) {
        ::execv(argv[3], argv + 3);
        ::_exit(127);
    }
    const int fd = connectWhenThere(argv[2]);
    protocol->begin(fd, 0);
    writeAll(fd, protocol->probe());
    std::string input;
    while (protocol->takeAnswers(input) == 0)
        if (!readSome(fd, input)) giveUp("the router is gone");
    std::printf("%llu\n", static_cast<unsigned long long>(nanosecondsNow() - begin));
    (void)::kill(router, SIGTERM);
    int status = 0;
    return ::waitpid(router, &status, 0) == router ? 0 : 1;
}
