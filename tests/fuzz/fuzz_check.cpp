#include "tests/fuzz/fuzz_check.h"

#include <cstdlib>
#include <string>
#include <unistd.h>

#include "tests/fuzz/fuzz_setup.h"

void fuzzCheck(bool holds, std::string_view what)
{
    if (holds) return;
    const std::string line = "does not hold: " + std::string(what) + "\n";
    if (::write(fuzzReportFd(), line.data(), line.size()) < 0) std::_Exit(2);
    std::abort();
}
