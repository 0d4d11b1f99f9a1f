#pragma once

#include <string>
#include <string_view>

/// What the rules of command addresses give for a token, written down step by step and without
/// regard to speed: what the parser is compared with.
struct AddressByRules {
    int result;
    std::string unit;
    std::string process;
};

/// @param token  without white space in front
AddressByRules addressByRules(std::string_view token);
