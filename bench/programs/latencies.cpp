#include "bench/programs/latencies.h"

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>

std::string Latencies::quantiles()
{
    std::ranges::sort(times_);
    std::string list = "[";
    for (std::size_t permille = 0; permille <= 1000 && !times_.empty(); ++permille) {
        const std::size_t at = (times_.size() - 1) * permille / 1000;
        if (permille > 0) list += ',';
        list += std::to_string(times_[at]);
    }
    return list + "]";
}

std::uint64_t nanosecondsNow()
{
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000U + static_cast<std::uint64_t>(now.tv_nsec);
}

std::uint64_t processorNanoseconds(int pid)
{
    std::uint64_t total = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
        std::ifstream schedstat(task.path() / "schedstat");
        std::uint64_t ran = 0;
        schedstat >> ran;
        total += ran;
    }
    return total;
}
