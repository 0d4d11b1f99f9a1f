#include "tools/tessctl/record_text.h"

#include <gtest/gtest.h>

using namespace std::string_literals;

namespace {

TOrbAttachmentMsg record(std::uint32_t kind, const std::string& text)
{
    TOrbAttachmentMsg made{.kind = kind, .sender = 1001, .tag = 0xBB01'0007, .len = -1, .text = {}};
    text.copy(made.text, sizeof made.text);
    return made;
}

} // namespace

TEST(RecordText, QuotesAsCDoes)
{
    EXPECT_EQ(inQuotes(""), "\"\"");
    EXPECT_EQ(inQuotes("SETX 5\n"), "\"SETX 5\\n\"");
    EXPECT_EQ(inQuotes("a\"b\\c\r\t\x01\xFF\0d"s), "\"a\\\"b\\\\c\\r\\t\\001\\377\\000d\"");
}

TEST(RecordText, DescribesARecordInOneLine)
{
    EXPECT_EQ(describe(record(101, "SETX 5\n\0"s), 24),
              "kind 101 (text), sender 1001, tag 0xbb010007, len -1, text \"SETX 5\\n\"");
    EXPECT_EQ(describe(record(4711, ""), 16), "kind 4711 (unknown), sender 1001, tag 0xbb010007, len -1, text \"\"");
    EXPECT_EQ(describe(record(102, "abc"), 18), "kind 102 (reply), sender 1001, tag 0xbb010007, len -1, text \"ab\"")
        << "what did not arrive is not shown";
}

TEST(RecordText, NamesEveryKind)
{
    const std::pair<std::uint32_t, std::string> rows[] = {
        {100, "stop"},      {101, "text"},       {102, "reply"},        {200, "register"}, {201, "unregister"},
        {202, "close all"}, {203, "COM2 write"}, {204, "close telnet"}, {205, "reset"},    {206, "unknown"},
    };
    for (const auto& [kind, name] : rows)
        EXPECT_EQ(describe(record(kind, ""), 16),
                  "kind " + std::to_string(kind) + " (" + name + "), sender 1001, tag 0xbb010007, len -1, text \"\"");
}

TEST(RecordText, DumpsTheBytesAsTheyLie)
{
    TOrbAttachmentMsg words{};
    words.kind = words.tag = 0x4545'4545; // the same in either byte order
    "AB"s.copy(words.text, 2);
    EXPECT_EQ(hexDump(words, 18), "0000  45 45 45 45 00 00 00 00 45 45 45 45 00 00 00 00\n"
                                  "0010  41 42\n");
}
