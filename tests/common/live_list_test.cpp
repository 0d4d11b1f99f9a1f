#include "common/live_list.h"

#include <gmock/gmock.h>

using testing::ElementsAre;

namespace {

struct Entry {
    int number;
};

} // namespace

TEST(LiveList, ErasesNullEntriesWhereItLooksAndOnlyThere)
{
    Entry a{1};
    Entry b{2};
    std::vector<Entry*> list{nullptr, nullptr, &a, nullptr, &b, nullptr};
    EXPECT_EQ(liveAt(list, 0), &a);
    EXPECT_THAT(list, ElementsAre(&a, nullptr, &b, nullptr));
    EXPECT_EQ(liveAt(list, 1), &b);
    EXPECT_THAT(list, ElementsAre(&a, &b, nullptr));
    EXPECT_EQ(liveAt(list, 2), nullptr);
    EXPECT_THAT(list, ElementsAre(&a, &b));
}

TEST(LiveList, HasNothingBehindItsEnd)
{
    std::vector<Entry*> list;
    EXPECT_EQ(liveAt(list, 0), nullptr);
    EXPECT_EQ(liveAt(list, 7), nullptr);
    list = {nullptr, nullptr};
    EXPECT_EQ(liveAt(list, 0), nullptr);
    EXPECT_TRUE(list.empty());
}

TEST(LiveList, VisitsEveryLiveEntryOnce)
{
    Entry a{1};
    Entry b{2};
    Entry c{3};
    std::vector<Entry*> list{nullptr, &a, &b, nullptr, nullptr, &c, nullptr};
    std::vector<int> seen;
    for (std::size_t i = 0; const Entry* entry = liveAt(list, i); ++i)
        seen.push_back(entry->number);
    EXPECT_THAT(seen, ElementsAre(1, 2, 3));
    EXPECT_THAT(list, ElementsAre(&a, &b, &c));
}
