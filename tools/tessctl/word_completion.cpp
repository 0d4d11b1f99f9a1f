#include "tools/tessctl/word_completion.h"

#include <algorithm>
#include <cctype>

#include "common/text.h"
#include "framework/tokenizer.h"

namespace {

constexpr const char* BLANKS = " \t|";

} // namespace

WordCompletion::WordCompletion() : words_{"DELAY", "CLEAR", "RESET", "REINIT"} {}

void WordCompletion::see(std::string_view line)
{
    std::vector<std::string_view> words;
    stringTokenizer(line, words, BLANKS);
    for (const std::string_view word : words) {
        const bool isName = std::ranges::any_of(word, [](unsigned char c) { return std::isalpha(c) != 0; });
        if (isName) words_.emplace(word);
    }
}

std::vector<std::string> WordCompletion::complete(std::string_view line) const
{
    const std::string_view beginning = lastWord(line);
    std::vector<std::string> found;
    if (beginning.empty()) return found;
    std::ranges::copy_if(words_, std::back_inserter(found),
                         [&](const std::string& word) { return beginsWithNoCase(word, beginning); });
    return found;
}

std::string_view WordCompletion::lastWord(std::string_view line)
{
    return line.substr(line.find_last_of(BLANKS) + 1); // where there is none, that adds up to 0
}

std::string WordCompletion::commonBeginning(const std::vector<std::string>& words)
{
    if (words.empty()) return {};
    std::string common = words.front();
    for (const std::string& word : words)
        common.erase(std::ranges::mismatch(common, word).in1, common.end());
    return common;
}
