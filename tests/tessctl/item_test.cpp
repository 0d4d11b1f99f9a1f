#include "tools/tessctl/item.h"

#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::SizeIs;

TEST(Item, IsAWordWithKeysAndValues)
{
    const auto item = Item::parse(R"(connection id=0xbb010000 user="al\"i\\ce" idle=12 text="a b=\x0a\xff")");
    ASSERT_TRUE(item);
    EXPECT_EQ(item->word(), "connection");
    EXPECT_THAT(item->values(), SizeIs(4));
    EXPECT_EQ(item->text("id"), "0xbb010000");
    EXPECT_EQ(item->text("user"), R"(al"i\ce)");
    EXPECT_EQ(item->number("idle"), 12);
    EXPECT_EQ(item->text("text"), R"(a b=\x0a\xff)") << "what cannot be printed is left as it is told";
    EXPECT_EQ(item->find("text")->bytes, "a b=\n\xff");
    EXPECT_TRUE(item->find("text")->isText);
    EXPECT_FALSE(item->find("idle")->isText);
}

TEST(Item, HasNothingForAKeyThatIsNotThere)
{
    const auto item = Item::parse("daemon");
    ASSERT_TRUE(item);
    EXPECT_EQ(item->find("uptime"), nullptr);
    EXPECT_EQ(item->text("uptime"), "");
    EXPECT_EQ(item->number("uptime"), 0);
}

TEST(Item, ShowsThatATextWasCut)
{
    const auto item = Item::parse(R"(process name="nnn"... address=1500)");
    ASSERT_TRUE(item);
    EXPECT_EQ(item->text("name"), "nnn...");
    EXPECT_EQ(item->number("address"), 1500);
}

TEST(Item, IsNoLineThatIsNone)
{
    for (const char* line : {"", " a=1", "a=1", "word a", "word a=\"open", "word a=\"x\"y", "word a=\"\\",
                             "word a=\"\\x0", "word a=\"\\xg0\"", "word  "})
        EXPECT_FALSE(Item::parse(line)) << "'" << line << "'";
}

TEST(Item, ComesFromATextOfLines)
{
    std::vector<std::string> words;
    for (const Item& item : parseItems("one a=1\n\nno line=\ntwo\nthree b=\"\\x0a\"\nlast"))
        words.push_back(item.word());
    EXPECT_THAT(words, ElementsAre("one", "no", "two", "three", "last"));
}
