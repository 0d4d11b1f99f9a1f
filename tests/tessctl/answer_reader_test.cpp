#include "tools/tessctl/answer_reader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

std::vector<std::string> linesOf(const std::vector<std::string>& pieces)
{
    TAnswerReader reader;
    std::vector<std::string> lines;
    for (const std::string& piece : pieces)
        for (const std::string& line : reader.take(piece).lines)
            lines.push_back(line);
    return lines;
}

} // namespace

TEST(AnswerReader, TellsWhereAnswersEnd)
{
    struct Row {
        std::string received;
        std::vector<std::string> lines;
        std::size_t answers, refusals;
        bool inside;
    };
    const Row rows[] = {
        {"", {}, 0, 0, false},
        {"0\r\n\r\n", {"0"}, 1, 0, false},
        {"?\r\n", {"?"}, 1, 1, false},
        {"?\r\n?\r\n?\r\n", {"?", "?", "?"}, 3, 3, false},
        {"?\r\n\r\n", {"?"}, 1, 1, false},
        {"5\r\n\r\n?\r\n", {"5", "?"}, 2, 1, false},
        {"OK\r\n000:00:05.000 A\r\n000:00:06.000 B\r\n\r\n", {"OK", "000:00:05.000 A", "000:00:06.000 B"}, 1, 0, false},
        {"5\r\n", {"5"}, 0, 0, true},
        {"5", {}, 0, 0, true},
        {"A\r\n?\r\n", {"A", "?"}, 0, 0, true}, // no refusal: another line of the same answer
        {"? what\r\n\r\n", {"? what"}, 1, 0, false},
        {"\r\n\r\n", {}, 0, 0, false},
        {"A\nB\n\n", {"A", "B"}, 1, 0, false}, // line ends of any kind
        {"A\rB\r\n\r\n", {"A\rB"}, 1, 0, false},
    };
    for (const Row& row : rows) {
        TAnswerReader reader;
        const TAnswerReader::Progress progress = reader.take(row.received);
        EXPECT_EQ(progress.lines, row.lines) << testing::PrintToString(row.received);
        EXPECT_EQ(progress.answers, row.answers) << testing::PrintToString(row.received);
        EXPECT_EQ(progress.refusals, row.refusals) << testing::PrintToString(row.received);
        EXPECT_EQ(reader.insideAnswer(), row.inside) << testing::PrintToString(row.received);
    }
}

TEST(AnswerReader, TakesAnAnswerInPieces)
{
    EXPECT_THAT(linesOf({"O", "K\r", "\n", "second", " line\r\n\r", "\n?", "\r\n"}),
                ElementsAre("OK", "second line", "?"));
}

TEST(AnswerReader, TakesAPauseForTheEnd)
{
    TAnswerReader reader;
    EXPECT_THAT(reader.takePause().lines, IsEmpty());
    (void)reader.take("one\r\ntwo\r");
    const TAnswerReader::Progress progress = reader.takePause();
    EXPECT_THAT(progress.lines, ElementsAre("two"));
    EXPECT_EQ(progress.answers, 1U);
    EXPECT_FALSE(reader.insideAnswer());
    EXPECT_EQ(reader.take("?\r\n").refusals, 1U) << "the next answer begins afresh";
}
