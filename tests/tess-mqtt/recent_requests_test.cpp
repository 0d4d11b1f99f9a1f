#include "tools/tess-mqtt/recent_requests.h"

#include <gtest/gtest.h>

#include "tests/support/temp_dir.h"

using Known = RecentRequests::Known;

namespace {

const Reply REPLY{ReplyStatus::answered, "20"};

} // namespace

TEST(RecentRequests, KnowARequestFromItsBeginToTheEndOfTheWindow)
{
    RecentRequests recent(60, "");
    EXPECT_EQ(recent.find({"t", "c"}, 100), Known::no);
    recent.begin({"t", "c"}, 100);
    EXPECT_EQ(recent.find({"t", "c"}, 100), Known::underWay);
    recent.finish({"t", "c"}, REPLY);
    EXPECT_EQ(recent.find({"t", "c"}, 159), Known::answered);
    EXPECT_EQ(recent.reply({"t", "c"}).text, "20");
    EXPECT_EQ(recent.find({"t", "c"}, 160), Known::no);
}

TEST(RecentRequests, TellTopicsAndDataApart)
{
    RecentRequests recent(60, "");
    recent.begin({"ab", "c"}, 1);
    for (const auto& [topic, data] :
         {std::pair("a", "bc"), std::pair("abc", ""), std::pair("", "abc"), std::pair("ab", "d")})
        EXPECT_EQ(recent.find({topic, data}, 1), Known::no) << topic << ", " << data;
}

TEST(RecentRequests, TellLinesApart)
{
    RecentRequests recent(60, "");
    recent.begin({"t", "c", "s3.A x"}, 1);
    recent.finish({"t", "c", "s3.A x"}, REPLY);
    EXPECT_EQ(recent.find({"t", "c", "s3.A y"}, 1), Known::no);
    EXPECT_EQ(recent.find({"t", "cs", "3.A x"}, 1), Known::no);
    EXPECT_EQ(recent.find({"t", "c", "s3.A x"}, 1), Known::answered);
}

TEST(RecentRequests, ForgetWhatWasNotCarriedOut)
{
    RecentRequests recent(60, "");
    recent.begin({"t", "c"}, 1);
    recent.forget({"t", "c"});
    EXPECT_EQ(recent.find({"t", "c"}, 1), Known::no);
    recent.finish({"t", "c"}, REPLY); // harmless
    recent.forget({"t", "c"});
    EXPECT_EQ(recent.find({"t", "c"}, 1), Known::no);
}

TEST(RecentRequests, ForgetTheOldestWhenThereAreTooMany)
{
    RecentRequests recent(1000, "");
    const auto name = [](std::size_t number) { return std::to_string(number); };
    constexpr std::size_t COUNT = RecentRequests::SLOTS + 500;
    for (std::size_t i = 0; i < COUNT; ++i) {
        recent.begin({"t", name(i)}, 1);
        if (i % 3 == 1) recent.forget({"t", name(i - 1)});
    }
    for (std::size_t i = 0; i < COUNT; ++i) {
        const bool isLost = i < COUNT - RecentRequests::SLOTS || i % 3 == 0;
        ASSERT_EQ(recent.find({"t", name(i)}, 1), isLost ? Known::no : Known::underWay) << i;
    }
}

TEST(RecentRequests, AreNotPushedOutByThoseThatAreNotCarriedOut)
{
    RecentRequests recent(1000, "");
    recent.begin({"t", "early"}, 1);
    for (std::size_t i = 0; i < 2 * RecentRequests::SLOTS; ++i) {
        recent.begin({"t", "busy" + std::to_string(i)}, 1);
        recent.forget({"t", "busy" + std::to_string(i)});
    }
    EXPECT_EQ(recent.find({"t", "early"}, 1), Known::underWay);
    recent.begin({"t", "late"}, 2);
    EXPECT_EQ(recent.find({"t", "early"}, 2), Known::underWay);
    EXPECT_EQ(recent.find({"t", "late"}, 1001), Known::underWay);
    EXPECT_EQ(recent.find({"t", "early"}, 1001), Known::no);
}

TEST(RecentRequests, KeepSoMuchTextOfTheLatestAnswers)
{
    RecentRequests recent(60, "");
    const Reply half{ReplyStatus::answered, std::string(RecentRequests::MOST_TEXT_BYTES / 2, 'x')};
    for (const char* name : {"first", "second", "third"}) {
        recent.begin({"t", name}, 1);
        recent.finish({"t", name}, half);
    }
    EXPECT_EQ(recent.find({"t", "first"}, 1), Known::answerLost);
    EXPECT_EQ(recent.find({"t", "second"}, 1), Known::answered);
    EXPECT_EQ(recent.find({"t", "third"}, 1), Known::answered);
}

TEST(RecentRequests, KeepNoTextThatIsTooLongByItself)
{
    RecentRequests recent(60, "");
    recent.begin({"t", "short"}, 1);
    recent.finish({"t", "short"}, REPLY);
    recent.begin({"t", "long"}, 1);
    recent.finish({"t", "long"}, {ReplyStatus::answered, std::string(RecentRequests::MOST_TEXT_BYTES + 1, 'x')});
    EXPECT_EQ(recent.find({"t", "long"}, 1), Known::answerLost);
    EXPECT_EQ(recent.find({"t", "short"}, 1), Known::answered);
}

TEST(RecentRequests, AreKnownToTheNextProcessByTheirFile)
{
    const TempDir folder;
    const std::string file = folder.path() + "/requests";
    {
        RecentRequests recent(60, file);
        EXPECT_TRUE(recent.isKept());
        for (std::size_t i = 0; i < RecentRequests::SLOTS + 10; ++i) // once around
            recent.begin({"t", std::to_string(i)}, 100 + static_cast<std::int64_t>(i) / 1000);
        recent.finish({"t", "4100"}, REPLY);
        recent.forget({"t", "4101"});
    }
    RecentRequests next(60, file);
    EXPECT_EQ(next.find({"t", "4100"}, 110), Known::answerLost);
    EXPECT_EQ(next.find({"t", "4101"}, 110), Known::no);
    EXPECT_EQ(next.find({"t", "9"}, 110), Known::no);
    EXPECT_EQ(next.find({"t", "10"}, 110), Known::answerLost);
    next.begin({"t", "new"}, 110);
    EXPECT_EQ(next.find({"t", "new"}, 110), Known::underWay);
    EXPECT_EQ(next.find({"t", "11"}, 110), Known::answerLost);
    EXPECT_EQ(next.find({"t", "4105"}, 170), Known::no);
}

TEST(RecentRequests, GiveUpTheOldestAlsoAfterARestartAmongManyOfOneSecond)
{
    const TempDir folder;
    const std::string file = folder.path() + "/requests";
    constexpr std::size_t COUNT = RecentRequests::SLOTS + 100;
    {
        RecentRequests recent(60, file);
        for (std::size_t i = 0; i < COUNT; ++i)
            recent.begin({"t", std::to_string(i)}, 100);
        recent.forget({"t", std::to_string(COUNT - 1)});
    }
    RecentRequests next(60, file);
    for (std::size_t i = 0; i < 10; ++i)
        next.begin({"t", "new" + std::to_string(i)}, 100);
    EXPECT_EQ(next.find({"t", "109"}, 100), Known::no);
    for (std::size_t i = 110; i < COUNT - 1; ++i)
        ASSERT_EQ(next.find({"t", std::to_string(i)}, 100), Known::answerLost) << i;
}

TEST(RecentRequests, ForgetWhatIsOfBeforeTheDevicesLastStart)
{
    const TempDir folder;
    const std::string file = folder.path() + "/requests";
    RecentRequests(60, file).begin({"t", "c"}, 5000);
    RecentRequests next(60, file);
    EXPECT_EQ(next.find({"t", "c"}, 10), Known::no);
}

TEST(RecentRequests, DoWithoutAFileThatCannotBeMade)
{
    RecentRequests recent(60, "/nowhere/requests");
    EXPECT_FALSE(recent.isKept());
    recent.begin({"t", "c"}, 1);
    EXPECT_EQ(recent.find({"t", "c"}, 1), Known::underWay);
}
