#include "daemon/answer_box.h"

#include <gmock/gmock.h>
#include <memory>
#include <string>
#include <vector>

#include "framework/tess_messages.h"
#include "tests/support/queue_process.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class AnswerBoxTest : public testing::Test {
protected:
    bool put(std::string_view text, std::uint32_t tag = 0)
    {
        return box->put(message(MSG_REPLY, text, tag).record, text.size());
    }

    std::vector<std::string> takeTexts()
    {
        std::vector<std::string> texts;
        for (const TOrbAttachmentMsg* answer : box->take())
            texts.emplace_back(answer->text);
        return texts;
    }

    std::unique_ptr<AnswerBox> box = std::make_unique<AnswerBox>();
};

} // namespace

TEST_F(AnswerBoxTest, GivesAnswersOutInOrderAndOnce)
{
    EXPECT_TRUE(box->isEmpty());
    EXPECT_THAT(takeTexts(), IsEmpty());
    for (const char* text : {"A", "", "longer than the others"})
        EXPECT_TRUE(put(text));
    EXPECT_FALSE(box->isEmpty());
    EXPECT_THAT(takeTexts(), ElementsAre("A", "", "longer than the others"));
    EXPECT_TRUE(box->isEmpty());
    EXPECT_THAT(takeTexts(), IsEmpty());
}

TEST_F(AnswerBoxTest, KeepsTheHeaderAndAsMuchTextAsIsSaid)
{
    Outgoing answer = message(MSG_REPLY, "0123456789", 0xBB01'0007, 5);
    EXPECT_TRUE(box->put(answer.record, 4));
    answer.record = {};
    const auto taken = box->take();
    ASSERT_EQ(taken.size(), 1U);
    EXPECT_EQ(taken[0]->kind, 102U);
    EXPECT_EQ(taken[0]->tag, 0xBB01'0007U);
    EXPECT_EQ(taken[0]->len, 5);
    EXPECT_STREQ(taken[0]->text, "0123");
}

TEST_F(AnswerBoxTest, LeavesWhatWasTakenWhileOthersComeIn)
{
    put("first");
    const auto taken = box->take();
    put("second");
    EXPECT_STREQ(taken[0]->text, "first");
    EXPECT_THAT(takeTexts(), ElementsAre("second"));
}

TEST_F(AnswerBoxTest, HasNoRoomForMoreThanItCanGiveOut)
{
    std::size_t count = 0;
    while (count < 1000 && put("A"))
        ++count;
    EXPECT_EQ(count, AnswerBox::MOST_ANSWERS);
    EXPECT_EQ(takeTexts().size(), count);
    EXPECT_TRUE(put("A"));
}

TEST_F(AnswerBoxTest, TakesTheLongestTextsAndSaysWhenItIsFull)
{
    const std::string longest(MSG_TEXT_BYTES - 1, 'x');
    std::size_t count = 0;
    while (count < 1000 && put(longest))
        ++count;
    EXPECT_EQ(count, 4U);
    EXPECT_THAT(takeTexts(), ElementsAre(longest, longest, longest, longest));
    EXPECT_TRUE(put(longest));
}

TEST_F(AnswerBoxTest, IsEmptyInACopy)
{
    put("the parent's");
    box->startInForkedChild();
    EXPECT_TRUE(box->isEmpty());
    put("its own");
    EXPECT_THAT(takeTexts(), ElementsAre("its own"));
}
