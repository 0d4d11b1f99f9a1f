#include "connections/line_cutter.h"

#include <string>
#include <vector>

#include "common/white_space.h"
#include "tests/fuzz/fuzz_check.h"
#include "tests/fuzz/fuzz_input.h"
#include "tests/support/line_rules.h"

namespace {

/// A buffer and a table of exactly the size that the cutters ask for.
struct Cut {
    explicit Cut(const std::string& text) : buffer(text.begin(), text.end()), entries(text.size())
    {
        buffer.push_back('\0');
    }
    std::span<char> text() { return std::span(buffer).first(buffer.size() - 1); }

    std::vector<char> buffer;
    std::vector<CmdEntry> entries;
};

void check(const std::string& received, Cut& cut, int count, std::uint32_t tag,
           const std::vector<std::string>& expected)
{
    fuzzCheck(count == static_cast<int>(expected.size()), "the number of lines is what the rules give");
    for (std::size_t i = 0; i < expected.size(); ++i) {
        const CmdEntry& entry = cut.entries[i];
        fuzzCheck(entry.text >= cut.buffer.data() && entry.text < cut.buffer.data() + received.size(),
                  "a line begins inside the buffer");
        fuzzCheck(i == 0 || entry.text > cut.entries[i - 1].text, "lines stand in order");
        fuzzCheck(entry.text == expected[i], "a line is what the rules give");
        fuzzCheck(entry.tag == tag, "a line has the tag");
    }
    for (std::size_t i = 0; i < received.size(); ++i)
        fuzzCheck(cut.buffer[i] == received[i] || (cut.buffer[i] == '\0' && isWhiteSpace(received[i])),
                  "nothing but white space is overwritten, by NUL");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string received(reinterpret_cast<const char*>(data), size);
    for (const bool nulIsSpace : {true, false}) {
        Cut cut(received);
        check(received, cut, cutLines(cut.text(), nulIsSpace, cut.entries), 0, linesByRules(received, nulIsSpace));
    }
    Cut cut(received);
    check(received, cut, cutFrameLines(cut.text(), 0x0005'0007, cut.entries), 0x0005'0007, frameLinesByRules(received));
    return 0;
}
