#include "tools/tessctl/visible_text.h"

#include <gtest/gtest.h>

TEST(VisibleText, ShowsWhatWouldControlATerminal)
{
    EXPECT_EQ(visibleText("\x1b[2J\a\x7f"), "\\x1b[2J\\x07\\x7f");
    EXPECT_EQ(visibleText(std::string_view("a\0b", 3)), "a\\x00b");
    EXPECT_EQ(visibleText("\x9b"
                          "2J"),
              "\\x9b2J");
    EXPECT_EQ(visibleText("\xc2\x9b"
                          "2J"),
              "\\xc2\\x9b2J")
        << "the same in UTF-8";
}

TEST(VisibleText, LeavesTheRestAsItIs)
{
    for (const char* text :
         {"", "plain ~ text", "a\tb\r\n", "\xc2\xb0", "\xc3\xa4\xe2\x82\xac\xf0\x9f\x99\x82", "\xe4", "\xe2\x82"})
        EXPECT_EQ(visibleText(text).find("\\x"), text == std::string("\xe2\x82") ? 1U : std::string::npos) << text;
}
