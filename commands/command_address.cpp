#include "commands/command_address.h"

#include "common/white_space.h"
#include "framework/fixed_text.h"

namespace {

/// Collects characters to compare them with a pattern of two: keeps the first two, the others do
/// not matter.
class PatternHead {
public:
    void append(char c)
    {
        if (length_ < 2) head_[length_++] = c;
    }
    bool is(std::string_view pattern) const { return std::string_view(head_, length_) == pattern; }

private:
    char head_[2]{};
    std::size_t length_ = 0;
};

enum class Form { broadcast, fields };

/// Tells from stars, dots and white space whether an address stands in front.
Form classify(std::string_view text)
{
    if (text.starts_with('*')) return Form::fields;
    PatternHead stars;
    PatternHead dots;
    for (const char c : text) {
        if (c == '$') return Form::fields;
        if (c == '*') stars.append('*');
        if (c == '.') dots.append('.');
        if (isWhiteSpace(c)) {
            stars.append(' ');
            dots.append(' ');
        }
    }
    // "s3.ENC *": a star as the second word makes the whole text a broadcast.
    if (stars.is(" *")) return Form::broadcast;
    return dots.is(". ") ? Form::fields : Form::broadcast;
}

template <class Stops> std::size_t lengthUntil(std::string_view text, Stops stops)
{
    std::size_t n = 0;
    while (n < text.size() && !stops(text[n]))
        ++n;
    return n;
}

/// "$GPRMC,...": the unit field runs to the first comma.
int parseSentence(std::string_view text, std::size_t unitLength, CommandAddress& address)
{
    const std::size_t consumed = unitLength + lengthUntil(text.substr(unitLength), [](char c) { return c == ','; });
    putText(address.unitAddr, text.substr(0, consumed));
    if (!text.starts_with("$GPRMC")) return ADDRESS_REJECTED;
    putText(address.unitAddr, "*");
    putText(address.procAddr, "GPSD");
    return static_cast<int>(consumed) - 2; // the body begins inside the sentence's name (deliberate)
}

} // namespace

int parseCmdAddress(std::string_view text, CommandAddress& address)
{
    address.unitAddr[0] = '\0';
    address.procAddr[0] = '\0';
    const auto notWhite = [](char c) { return !isWhiteSpace(c); };
    text.remove_prefix(lengthUntil(text, notWhite));

    if (classify(text) == Form::broadcast) {
        putText(address.unitAddr, "*");
        putText(address.procAddr, "*");
        return ADDRESS_WHOLE_TEXT;
    }

    std::size_t consumed = lengthUntil(text, [](char c) { return isWhiteSpace(c) || c == '.' || c == '$'; });
    const std::string_view unit = text.substr(0, consumed);
    putText(address.unitAddr, unit);
    if (consumed == text.size()) return static_cast<int>(consumed); // no body; for "*" this is 1

    const char stop = text[consumed];
    if (stop == '$') return parseSentence(text, consumed, address);
    if (stop == '.') {
        consumed += 1;
        const std::size_t processLength = lengthUntil(text.substr(consumed), isWhiteSpace);
        putText(address.procAddr, text.substr(consumed, processLength));
        consumed += processLength;
    } else if (unit == "*" || unit.empty()) {
        putText(address.procAddr, "*");
    } else {
        return ADDRESS_REJECTED;
    }
    consumed += lengthUntil(text.substr(consumed), notWhite);
    return static_cast<int>(consumed);
}
