#include "framework/tokenizer.h"

#include <string>

#include "tests/fuzz/fuzz_check.h"
#include "tests/fuzz/fuzz_input.h"

namespace {

std::vector<std::string> cutOneByOne(const std::string& text, const std::string& separators)
{
    std::vector<std::string> tokens;
    std::string token;
    for (const char c : text + separators.substr(0, 1)) {
        if (separators.find(c) == std::string::npos) {
            token += c;
        } else if (!token.empty()) {
            tokens.push_back(token);
            token.clear();
        }
    }
    if (!token.empty()) tokens.push_back(token);
    return tokens;
}

/// @return false when a token is no number that fits 32 bits
bool readOneByOne(const std::vector<std::string>& tokens, std::vector<int>& numbers)
{
    for (const std::string& token : tokens) {
        std::int64_t number = 0;
        for (const char c : token) {
            if (c < '0' || c > '9') return false;
            number = number * 10 + (c - '0');
            if (number > INT32_MAX) return false;
        }
        numbers.push_back(static_cast<int>(number));
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzInput input(data, size);
    const std::string separators = input.take(input.byte() % 5U);
    const std::string text = input.rest();

    std::vector<std::string_view> tokens{"left over"};
    stringTokenizer(text, tokens, separators);
    const std::vector<std::string> expected = cutOneByOne(text, separators);
    fuzzCheck(std::equal(tokens.begin(), tokens.end(), expected.begin(), expected.end()), "the tokens are the same");
    for (const std::string_view token : tokens) {
        fuzzCheck(!token.empty(), "no token is empty");
        fuzzCheck(token.data() >= text.data() && token.data() + token.size() <= text.data() + text.size(),
                  "a token lies inside the text");
    }

    std::vector<int> numbers{4711};
    std::vector<int> expectedNumbers;
    const bool readable = readOneByOne(expected, expectedNumbers);
    const int result = intTokenizer(text, numbers, separators);
    fuzzCheck((result == 0) == readable, "the result tells whether all tokens are numbers");
    if (readable) fuzzCheck(numbers == expectedNumbers, "the numbers are the same");
    return 0;
}
