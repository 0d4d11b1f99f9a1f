#include "pauses.h"

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <sys/syscall.h>

#include "next_call.h"

namespace {

struct Plan {
    unsigned seed = 0;
    unsigned of1000 = 0; ///< 0: no pauses
    unsigned microseconds = 1;
};

constinit Plan g_plan;
constinit std::atomic<unsigned> g_threads{0};
thread_local std::uint64_t t_state = 0;

[[gnu::constructor(101)]] void readPlan()
{
    const char* const text = std::getenv("TESS_PAUSES");
    if (text == nullptr || !isTheDaemon()) return;
    Plan plan;
    if (std::sscanf(text, "%u:%u:%u", &plan.seed, &plan.of1000, &plan.microseconds) != 3 || plan.microseconds == 0) {
        std::perror("TESS_PAUSES");
        std::abort();
    }
    g_plan = plan;
}

/// xorshift64*: quick, and without a state that threads share.
unsigned nextRandom()
{
    if (t_state == 0) t_state = (std::uint64_t{g_plan.seed} << 20U) + g_threads.fetch_add(1) + 1;
    t_state ^= t_state >> 12U;
    t_state ^= t_state << 25U;
    t_state ^= t_state >> 27U;
    return static_cast<unsigned>((t_state * 0x2545F4914F6CDD1DULL) >> 33U);
}

} // namespace

void pauseAtRandom()
{
    if (g_plan.of1000 == 0) return;
    const int kept = errno;
    const unsigned lot = nextRandom() % 1000;
    if (lot < g_plan.of1000) {
        timespec span{0, static_cast<long>(nextRandom() % g_plan.microseconds) * 1000};
        (void)rawCall(SYS_nanosleep, asWord(&span)); // a signal may end it early
    } else if (lot < 2 * g_plan.of1000) {
        (void)rawCall(SYS_sched_yield);
    }
    errno = kept;
}
