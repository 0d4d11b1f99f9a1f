// The texts that tessctl takes from records, keys and arguments, and makes of them.
#include <algorithm>
#include <climits>
#include <clocale>
#include <cstring>
#include <cwchar>

#include "common/text.h"
#include "framework/tess_messages.h"
#include "tests/fuzz/fuzz_check.h"
#include "tests/fuzz/fuzz_input.h"
#include "tools/tessctl/key_decoder.h"
#include "tools/tessctl/nearest_word.h"
#include "tools/tessctl/port_mask.h"
#include "tools/tessctl/record_text.h"
#include "tools/tessctl/registry_answer.h"
#include "tools/tessctl/remote.h"
#include "tools/tessctl/visible_text.h"
#include "tools/tessctl/word_completion.h"

namespace {

void checkVisible(const std::string& text)
{
    const std::string visible = visibleText(text);
    for (const unsigned char c : visible) {
        const bool control = (c < ' ' && c != '\t' && c != '\r' && c != '\n') || c == 0x7F;
        fuzzCheck(!control, "nothing controls the terminal");
    }
    fuzzCheck(visibleText(visible) == visible, "what is visible stays as it is");
    fuzzCheck(visible.size() >= text.size(), "nothing is left out");
}

/// Keys are typed one by one; what was typed is what comes out, but for a character that has no end
/// yet.
void checkKeys(const std::string& typed)
{
    if (typed.find("\xF4\x8F") != std::string::npos) return; // stand-ins themselves, which no key sends
    KeyDecoder decoder;
    std::string text;
    for (const char byte : typed) {
        decoder.add(byte);
        while (const auto character = decoder.next()) {
            char bytes[MB_LEN_MAX];
            std::mbstate_t state{};
            const std::size_t count = std::wcrtomb(bytes, *character, &state);
            fuzzCheck(count != static_cast<std::size_t>(-1), "a character can be written");
            text.append(bytes, count);
        }
    }
    const std::string back = typedBytes(text);
    fuzzCheck(typed.starts_with(back), "what was typed comes back");
    fuzzCheck(typed.size() - back.size() < 6, "at most the beginning of a character is kept");
}

void checkRecord(const std::string& bytes)
{
    TOrbAttachmentMsg record{};
    const std::size_t length = std::clamp(bytes.size(), MSG_HEADER_BYTES, sizeof record);
    std::memcpy(&record, bytes.data(), std::min(bytes.size(), length));
    const std::string described = describe(record, length);
    fuzzCheck(std::ranges::all_of(described, [](char c) { return c >= ' ' && c <= '~'; }), "a description is plain");
    fuzzCheck(textOf(record).size() <= MSG_TEXT_BYTES, "a text ends with its record");
    const std::string dump = hexDump(record, length);
    fuzzCheck(dump.size() == length * 3 + (length + 15) / 16 * 6, "a dump has all bytes");
    fuzzCheck(!refusalText("ENC", textOf(record)).empty(), "a refusal has a reason");
    (void)answersUnregistering(textOf(record)); // any text has a yes or a no
}

/// @return what a shell makes of it; nothing when that is not one word
std::string unquoted(const std::string& word)
{
    std::string plain;
    bool inside = false;
    for (std::size_t i = 0; i < word.size(); ++i) {
        if (word[i] == '\'') {
            inside = !inside;
        } else if (!inside && word[i] == '\\' && i + 1 < word.size()) {
            plain += word[++i];
        } else {
            fuzzCheck(inside, "nothing stands outside the quotes");
            plain += word[i];
        }
    }
    fuzzCheck(!inside, "quotes are closed");
    return plain;
}

void checkCompletion(FuzzInput& input)
{
    WordCompletion completion;
    for (int lines = input.byte() % 8; lines > 0; --lines)
        completion.see(input.take(input.byte() % 64U));
    const std::string line = input.rest();
    const std::vector<std::string> words = completion.complete(line);
    const std::string common = WordCompletion::commonBeginning(words);
    for (const std::string& word : words) {
        fuzzCheck(beginsWithNoCase(word, WordCompletion::lastWord(line)), "a word goes on as the line has begun");
        fuzzCheck(word.starts_with(common), "the common beginning is one of all");
    }
}

void checkNearest(FuzzInput& input)
{
    std::vector<std::string> choices;
    for (int words = input.byte() % 8; words > 0; --words)
        choices.push_back(input.take(input.byte() % 16U));
    const std::string nearest = nearestWord(input.rest(), choices);
    fuzzCheck(nearest.empty() || std::ranges::find(choices, nearest) != choices.end(), "it is one of the choices");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const bool hasUtf8 = std::setlocale(LC_CTYPE, "C.UTF-8") != nullptr; // the cross libraries have no locales
    FuzzInput input(data, size);
    switch (input.byte() % 7) {
    case 0:
        checkVisible(input.rest());
        break;
    case 1:
        if (hasUtf8) checkKeys(input.rest());
        break;
    case 2:
        checkRecord(input.rest());
        break;
    case 3: {
        const std::string word = input.rest();
        fuzzCheck(unquoted(shellWord(word)) == word, "a shell reads the word as it was");
        break;
    }
    case 4:
        checkCompletion(input);
        break;
    case 5:
        checkNearest(input);
        break;
    default: {
        const auto mask = portMask(input.rest());
        if (mask) fuzzCheck(*mask != 0 && (*mask & ~PORTS_ALL) == 0, "a mask is of known ports");
    }
    }
    return 0;
}
