#include "commands/reset_line.h"

#include <strings.h>
#include <unistd.h>
#include <vector>

#include "framework/tokenizer.h"

namespace {

/// A name that merely begins with this host's name is taken for it (deliberate).
bool namesThisHost(std::string_view name)
{
    char host[64]{};
    return ::gethostname(host, sizeof host - 1) == 0 && name.starts_with(host);
}

bool isReinit(std::string_view word)
{
    return word.size() == 6 && ::strncasecmp(word.data(), "REINIT", 6) == 0;
}

} // namespace

ResetLine parseResetLine(std::string_view line)
{
    std::vector<std::string_view> words;
    stringTokenizer(line, words, " ");
    if (words.size() == 1) return ResetLine::restart;
    return words.size() == 3 && isReinit(words[1]) && namesThisHost(words[2]) ? ResetLine::reInit : ResetLine::refused;
}
