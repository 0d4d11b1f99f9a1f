#include "framework/tokenizer.h"

#include <charconv>
#include <optional>

namespace {

/// @return where `text` has one of them first
std::size_t findAny(std::string_view text, std::string_view separators)
{
    // What is asked for most: one search, not one for each character.
    return separators.size() == 1 ? text.find(separators.front()) : text.find_first_of(separators);
}

/// Takes the next token off the front of `text`.
std::optional<std::string_view> nextToken(std::string_view& text, std::string_view separators)
{
    const std::size_t begin = text.find_first_not_of(separators);
    if (begin == std::string_view::npos) return std::nullopt;
    text.remove_prefix(begin);
    const std::string_view token = text.substr(0, findAny(text, separators));
    text.remove_prefix(token.size());
    return token;
}

std::optional<int> decimalNumber(std::string_view token)
{
    if (token.front() == '-') return std::nullopt; // from_chars takes a minus, but no plus and no blanks
    int number = 0;
    const char* const end = token.data() + token.size();
    const auto [stopped, error] = std::from_chars(token.data(), end, number);
    if (error != std::errc() || stopped != end) return std::nullopt;
    return number;
}

} // namespace

void stringTokenizer(std::string_view text, std::vector<std::string_view>& tokens, std::string_view separators)
{
    tokens.clear();
    while (const auto token = nextToken(text, separators))
        tokens.push_back(*token);
}

int intTokenizer(std::string_view text, std::vector<int>& numbers, std::string_view separators)
{
    numbers.clear();
    while (const auto token = nextToken(text, separators)) {
        const auto number = decimalNumber(*token);
        if (!number) return 1;
        numbers.push_back(*number);
    }
    return 0;
}
