#include "connections/line_cutter.h"

#include <array>
#include <gmock/gmock.h>
#include <ostream>
#include <string>
#include <vector>

#include "common/white_space.h"
#include "tests/support/readable.h"

using namespace std::string_literals;
using testing::ElementsAreArray;
using Texts = std::vector<std::string>;

namespace {

/// A buffer with room for a NUL behind the text, and what was found in it.
struct Cut {
    std::string buffer;
    std::array<CmdEntry, 1024> entries{};
    int count = 0;

    Texts texts() const
    {
        Texts found;
        for (int i = 0; i < count; ++i)
            found.emplace_back(entries[static_cast<std::size_t>(i)].text);
        return found;
    }
    bool insideAndAscending() const
    {
        const char* previous = buffer.data() - 1;
        for (int i = 0; i < count; ++i) {
            const char* const text = entries[static_cast<std::size_t>(i)].text;
            if (text <= previous || text >= buffer.data() + buffer.size()) return false;
            previous = text;
        }
        return true;
    }
};

struct CutCase {
    const char* behaviour;
    std::string received;
    Texts lines;
    std::string buffer; ///< afterwards
};

void PrintTo(const CutCase& row, std::ostream* out)
{
    *out << row.behaviour << ": \"" << readable(row.received) << '"';
}

Cut cut(const std::string& received, bool nulIsSpace)
{
    Cut result;
    result.buffer = received; // std::string keeps a NUL behind it, as the readers do
    result.count = cutLines({result.buffer.data(), result.buffer.size()}, nulIsSpace, result.entries);
    return result;
}

Cut cutFrame(const std::string& payload, std::uint32_t tag)
{
    Cut result;
    result.buffer = payload;
    result.count = cutFrameLines({result.buffer.data(), result.buffer.size()}, tag, result.entries);
    return result;
}

const CutCase commonCases[] = {
    {"nothing yields nothing", "", {}, ""},
    {"a line without an end counts", "A", {"A"}, "A"},
    {"LF ends a line", "A\nB\n", {"A", "B"}, "A\0B\0"s},
    {"CR ends a line", "A\rB\r", {"A", "B"}, "A\0B\0"s},
    {"CR LF ends one line", "A\r\nB\r\n", {"A", "B"}, "A\0\0B\0\0"s},
    {"leading blanks and empty lines are dropped", "  A\r\n\r\nB", {"A", "B"}, "\0\0A\0\0\0\0B"s},
    {"trailing blanks stay in the line", "A  \r\n", {"A  "}, "A  \0\0"s},
    {"trailing blanks stay in a last line without an end", "A \t ", {"A \t "}, "A \t "},
    {"blanks behind a line end become NUL", "A\r\n \t B", {"A", "B"}, "A\0\0\0\0\0B"s},
    {"a blank between words stays", "SETX 5\n", {"SETX 5"}, "SETX 5\0"s},
    {"a tab in front is dropped, one inside stays", "\tA\tB\n", {"A\tB"}, "\0A\tB\0"s},
    {"vertical tab and form feed are white space, but end no line", "\v\fA\vB\f\n", {"A\vB\f"}, "\0\0A\vB\f\0"s},
    {"only blanks and line ends yield nothing", " \r\n \t\r\n\n\r ", {}, std::string(10, '\0')},
    {"LF CR is two line ends", "A\n\rB", {"A", "B"}, "A\0\0B"s},
    {"8-bit bytes are text", "\xA0\xFF\x85\n", {"\xA0\xFF\x85"}, "\xA0\xFF\x85\0"s},
    {"control characters are text", "\x1b[A\x7f\n", {"\x1b[A\x7f"}, "\x1b[A\x7f\0"s},
    {"ten lines in one read",
     "0\n1\n2\n3\n4\n5\n6\n7\n8\n9\n",
     {"0", "1", "2", "3", "4", "5", "6", "7", "8", "9"},
     "0\0"
     "1\0"
     "2\0"
     "3\0"
     "4\0"
     "5\0"
     "6\0"
     "7\0"
     "8\0"
     "9\0"s},
};

const CutCase nulIsSpaceCases[] = {
    {"NUL in front is dropped", "\0\0A\n"s, {"A"}, "\0\0A\0"s},
    {"only NULs yield nothing", "\0\0\0"s, {}, "\0\0\0"s},
    {"NUL behind a line end is no line", "A\n\0B\n"s, {"A", "B"}, "A\0\0B\0"s},
    {"NUL inside hides the rest of its line", "A\0B\nC\n"s, {"A", "C"}, "A\0B\0C\0"s},
};

const CutCase nulIsTextCases[] = {
    {"NUL in front begins an empty line", "\0A\nB\n"s, {"", "B"}, "\0A\0B\0"s},
    {"a NUL alone is an empty line", "\0"s, {""}, "\0"s},
    {"NUL behind a line end begins an empty line", "A\n\0"s, {"A", ""}, "A\0\0"s},
};

const CutCase frameCases[] = {
    {"nothing yields nothing", "", {}, ""},
    {"a line without an end counts", "A", {"A"}, "A"},
    {"a CR before a LF stays, the LF becomes NUL", "ver\r\n", {"ver\r"}, "ver\r\0"s},
    {"a line runs on behind a CR", "A\rB", {"A\rB", "B"}, "A\rB"},
    {"a line runs on behind a LF", "A\nB\nC", {"A\nB\nC", "B\nC", "C"}, "A\nB\nC"},
    {"a line that ends the payload keeps its line end", "A\n", {"A\n"}, "A\n"},
    {"white space behind a line end ends the line", "A\n B", {"A\n", "B"}, "A\n\0B"s},
    {"CR LF between lines", "A\r\nB\r\n", {"A\r", "B\r"}, "A\r\0B\r\0"s},
    {"an empty line between lines", "A\n\n\nB", {"A\n", "B"}, "A\n\0\0B"s},
    {"leading blanks are dropped", " \t A", {"A"}, "\0\0\0A"s},
    {"trailing blanks stay", "A  \r\n", {"A  \r"}, "A  \r\0"s},
    {"only white space yields nothing", " \r\n\t ", {}, std::string(5, '\0')},
    {"a NUL behind a line end is an empty line", "A\n\0"s, {"A\n", ""}, "A\n\0"s},
    {"a NUL behind the text is part of its line", "A\0"s, {"A"}, "A\0"s},
    {"NULs alone are one empty line", "\0\0\0"s, {""}, "\0\0\0"s},
    {"a NUL in front begins an empty line", "\0A\nB"s, {"", "B"}, "\0A\nB"s},
    {"NUL lines", "\0\n\0\n\0\n"s, {"", "", ""}, "\0\n\0\n\0\n"s},
    {"8-bit bytes are text", "\xA0\xFF\n\x85", {"\xA0\xFF\n\x85", "\x85"}, "\xA0\xFF\n\x85"},
};

void expectCut(const CutCase& row, const Cut& result)
{
    SCOPED_TRACE(testing::PrintToString(row));
    EXPECT_THAT(result.texts(), ElementsAreArray(row.lines));
    EXPECT_EQ(readable(result.buffer), readable(row.buffer));
    EXPECT_TRUE(result.insideAndAscending());
}

} // namespace

TEST(LineCutter, CutsTextIntoLines)
{
    for (const CutCase& row : commonCases) {
        expectCut(row, cut(row.received, true));
        expectCut(row, cut(row.received, false));
    }
}

TEST(LineCutter, TakesNulForWhiteSpaceWhereAsked)
{
    for (const CutCase& row : nulIsSpaceCases)
        expectCut(row, cut(row.received, true));
}

TEST(LineCutter, TakesNulForTextWhereNotAsked)
{
    for (const CutCase& row : nulIsTextCases)
        expectCut(row, cut(row.received, false));
}

TEST(LineCutter, GivesEntriesTagZero)
{
    const Cut result = cut("A\nB\n", true);
    ASSERT_EQ(result.count, 2);
    EXPECT_EQ(result.entries[0].tag, 0U);
    EXPECT_EQ(result.entries[1].tag, 0U);
}

TEST(LineCutter, FindsAsManyLinesAsABufferCanHold)
{
    std::string received;
    for (int i = 0; i < 512; ++i)
        received += "A\n";
    const Cut result = cut(received, true);
    EXPECT_EQ(result.count, 512);
    EXPECT_TRUE(result.insideAndAscending());
}

TEST(LineCutter, TakesALineEndOrTextInTheLastByte)
{
    const std::string ending = std::string(1023, 'A') + "\n";
    EXPECT_THAT(cut(ending, true).texts(), ElementsAreArray(Texts{std::string(1023, 'A')}));
    const std::string starting = std::string(1023, ' ') + "A";
    EXPECT_THAT(cut(starting, true).texts(), ElementsAreArray(Texts{"A"}));
    const std::string full(1024, 'A');
    EXPECT_THAT(cut(full, true).texts(), ElementsAreArray(Texts{full}));
}

TEST(FrameCutter, CutsAPayloadIntoLines)
{
    for (const CutCase& row : frameCases)
        expectCut(row, cutFrame(row.received, 7));
}

TEST(FrameCutter, GivesEveryEntryTheFramesTag)
{
    const Cut result = cutFrame("A\r\nB\r\n", 0x00050007);
    ASSERT_EQ(result.count, 2);
    EXPECT_EQ(result.entries[0].tag, 0x00050007U);
    EXPECT_EQ(result.entries[1].tag, 0x00050007U);
}

TEST(FrameCutter, TakesALineEndOrTextInTheLastByte)
{
    const std::string ending = std::string(1007, 'A') + "\n";
    EXPECT_THAT(cutFrame(ending, 0).texts(), ElementsAreArray(Texts{ending}));
    const std::string starting = std::string(1007, ' ') + "A";
    EXPECT_THAT(cutFrame(starting, 0).texts(), ElementsAreArray(Texts{"A"}));
    std::string shortest;
    for (int i = 0; i < 504; ++i)
        shortest += "\0\n"s;
    EXPECT_EQ(cutFrame(shortest, 0).count, 504);
}

TEST(WhiteSpace, IsWhatTheCLocaleCallsSo)
{
    const std::string white = " \t\n\v\f\r";
    for (int byte = 0; byte < 256; ++byte) {
        const char c = static_cast<char>(byte);
        const bool expected = byte != 0 && white.find(c) != std::string::npos;
        EXPECT_EQ(isWhiteSpace(c), expected) << "byte " << byte;
        EXPECT_EQ(isLineEnd(c), byte == 10 || byte == 13) << "byte " << byte;
    }
}
