#include "encoder.h"

#include <charconv>
#include <system_error>
#include <vector>

#include "framework/tokenizer.h"

namespace {

/// @return whether the whole of `word` is a decimal number that fits; `number` is set only then
bool readNumber(std::string_view word, int& number)
{
    int value = 0;
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
    if (error != std::errc{} || end != word.data() + word.size()) return false;
    number = value;
    return true;
}

} // namespace

std::string Encoder::answerTo(std::string_view command)
{
    std::vector<std::string_view> words;
    stringTokenizer(command, words, " \t\r\n");
    if (words.size() == 1 && words[0] == "GETX") return std::to_string(position_);
    if (words.size() == 2 && words[0] == "SETX" && readNumber(words[1], position_)) return "0";
    return "?";
}
