#include "fault_plan.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>

#include "next_call.h"

namespace {

struct Rule {
    char call[FaultControl::NAME_BYTES]{}; ///< with its kind, where the rule has one
    Fault fault;
    unsigned first = 0;
    bool goesOn = false;
};

constinit Rule g_rule;
constinit FaultControl* g_control = nullptr;
constinit std::atomic<unsigned> g_matches{0};

[[noreturn]] void endForMistake(const char* what)
{
    std::perror(what);
    std::abort();
}

FaultControl* mapControl(const char* path)
{
    const long file = rawCall(SYS_openat, AT_FDCWD, asWord(path), O_RDWR | O_CLOEXEC);
    void* const mapped =
        ::mmap(nullptr, sizeof(FaultControl), PROT_READ | PROT_WRITE, MAP_SHARED, static_cast<int>(file), 0);
    if (file < 0 || mapped == MAP_FAILED) endForMistake("TESS_FAULTS_CONTROL");
    (void)rawCall(SYS_close, file); // the mapping stays
    return static_cast<FaultControl*>(mapped);
}

Rule parseRule(const char* text)
{
    Rule rule;
    const char* const effect = std::strchr(text, '=');
    const char* const which = effect != nullptr ? std::strchr(effect, '@') : nullptr;
    if (which == nullptr || static_cast<std::size_t>(effect - text) >= sizeof rule.call) endForMistake("TESS_FAULTS");
    std::memcpy(rule.call, text, static_cast<std::size_t>(effect - text));
    rule.fault.isShort = std::strncmp(effect + 1, "short", 5) == 0;
    rule.fault.error = rule.fault.isShort ? 0 : std::atoi(effect + 1);
    char* end = nullptr;
    rule.first = static_cast<unsigned>(std::strtoul(which + 1, &end, 10));
    rule.goesOn = *end == '+';
    if (rule.first == 0 || (rule.fault.error == 0 && !rule.fault.isShort)) endForMistake("TESS_FAULTS");
    return rule;
}

/// Before any call is counted. A mistake of the test shows when the program starts.
[[gnu::constructor(101)]] void readPlan()
{
    if (!isTheDaemon()) return;
    const char* const path = std::getenv("TESS_FAULTS_CONTROL");
    const char* const text = std::getenv("TESS_FAULTS");
    if (text != nullptr) g_rule = parseRule(text);
    if (path != nullptr) g_control = mapControl(path);
}

// Byte by byte: the functions of <cstring> are the thread sanitizer's, which does not see the
// order that the atomic accesses of this library, built without it, give.

/// The first byte comes last: other threads look at a name only when that is there.
void fillIn(FaultControl::Count& row, const char* name)
{
    for (std::size_t i = std::strlen(name); i > 0; --i)
        std::atomic_ref(row.call[i - 1]).store(name[i - 1]);
}

bool isOf(FaultControl::Count& row, const char* name)
{
    for (std::size_t i = 0;; ++i) {
        const char byte = std::atomic_ref(row.call[i]).load();
        if (byte != name[i]) return false;
        if (byte == '\0') return true;
    }
}

/// @return the row of a call, made when it is new; null when the table is full
FaultControl::Count* rowOf(const char* name)
{
    const unsigned rows = std::atomic_ref(g_control->rows).load();
    for (unsigned i = 0; i < rows && i < FaultControl::MOST_CALLS; ++i)
        if (isOf(g_control->counts[i], name)) return &g_control->counts[i];
    const unsigned fresh = std::atomic_ref(g_control->rows).fetch_add(1); // two threads may make two of a name
    if (fresh >= FaultControl::MOST_CALLS) return nullptr;
    fillIn(g_control->counts[fresh], name);
    return &g_control->counts[fresh];
}

bool isMeant(const char* call, const char* name)
{
    return std::strcmp(g_rule.call, call) == 0 || std::strcmp(g_rule.call, name) == 0;
}

} // namespace

bool faultsAreArmed()
{
    return g_control != nullptr && std::atomic_ref(g_control->armed).load() != 0;
}

Fault faultFor(const char* call, const char* kind)
{
    if (!faultsAreArmed()) return {};
    char name[FaultControl::NAME_BYTES]{};
    std::strncat(name, call, sizeof name - 1);
    if (*kind != '\0') {
        std::strncat(name, "/", sizeof name - 1 - std::strlen(name));
        std::strncat(name, kind, sizeof name - 1 - std::strlen(name));
    }
    if (FaultControl::Count* const row = rowOf(name)) std::atomic_ref(row->calls).fetch_add(1);
    if (g_rule.first == 0 || !isMeant(call, name)) return {};
    const unsigned number = g_matches.fetch_add(1) + 1;
    if (number != g_rule.first && !(g_rule.goesOn && number > g_rule.first)) return {};
    std::atomic_ref(g_control->fired).fetch_add(1);
    return g_rule.fault;
}
