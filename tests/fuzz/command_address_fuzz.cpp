#include "commands/command_address.h"

#include <cstring>

#include "common/white_space.h"
#include "tests/fuzz/fuzz_check.h"
#include "tests/fuzz/fuzz_input.h"
#include "tests/support/address_rules.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    CommandAddress address;
    std::memset(&address, 0x5A, sizeof address);
    const int result = parseCmdAddress(text, address);

    fuzzCheck(result >= 0, "the result is not negative");
    fuzzCheck(static_cast<std::size_t>(result) <= std::max<std::size_t>(size, 1), "an offset lies inside the token");
    fuzzCheck(std::memchr(address.unitAddr, 0, sizeof address.unitAddr) != nullptr, "the unit field ends with a NUL");
    fuzzCheck(std::memchr(address.procAddr, 0, sizeof address.procAddr) != nullptr,
              "the process field ends with a NUL");

    const auto firstWord = std::find_if(text.begin(), text.end(), [](char c) { return !isWhiteSpace(c); });
    const AddressByRules rules = addressByRules(std::string_view(firstWord, text.end()));
    fuzzCheck(result == rules.result, "the result is what the rules give");
    // A NUL ends a token before it gets to the parser, so that fields have none.
    if (text.find('\0') != std::string_view::npos) return 0;
    fuzzCheck(address.unitAddr == rules.unit, "the unit is what the rules give");
    fuzzCheck(address.procAddr == rules.process, "the process is what the rules give");
    return 0;
}
