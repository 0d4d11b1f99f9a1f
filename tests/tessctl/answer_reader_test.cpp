#include "tools/tessctl/answer_reader.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

std::vector<std::string> linesOf(const std::vector<std::string>& pieces)
{
    AnswerReader reader;
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
        std::size_t answers;
        std::ptrdiff_t failures;
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
        {"Error: no\r\n\r\n", {"Error: no"}, 1, 1, false},
        {"half\r\nError: no\r\n\r\n", {"half", "Error: no"}, 1, 1, false},
        {"Error: no\r\nbut then\r\n\r\n", {"Error: no", "but then"}, 1, 0, false}, // only the last line counts
        {"A\nB\n\n", {"A", "B"}, 1, 0, false},                                     // line ends of any kind
        {"A\rB\r\n\r\n", {"A\rB"}, 1, 0, false},
    };
    for (const Row& row : rows) {
        AnswerReader reader;
        const AnswerReader::Progress progress = reader.take(row.received);
        EXPECT_EQ(progress.lines, row.lines) << testing::PrintToString(row.received);
        EXPECT_EQ(progress.answers.size(), row.answers) << testing::PrintToString(row.received);
        EXPECT_EQ(std::ranges::count_if(progress.answers, &Answer::failed), row.failures)
            << testing::PrintToString(row.received);
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
    AnswerReader reader;
    EXPECT_THAT(reader.takePause().lines, IsEmpty());
    (void)reader.take("one\r\ntwo\r");
    const AnswerReader::Progress progress = reader.takePause();
    EXPECT_THAT(progress.lines, ElementsAre("two"));
    ASSERT_EQ(progress.answers.size(), 1U);
    EXPECT_EQ(progress.answers[0].text, "one\ntwo");
    EXPECT_FALSE(reader.insideAnswer());
    EXPECT_TRUE(reader.take("?\r\n").answers.at(0).failed) << "the next answer begins afresh";
}

TEST(AnswerReader, KnowsWhatMeansThatACommandFailed)
{
    struct Row {
        const char* lastLine;
        std::size_t lines;
        bool failure;
    };
    const Row rows[] = {
        {"?", 1, true},
        {"?", 2, false},
        {"Error: sh ended with status 3", 1, true},
        {"Error: sh ended with status 3", 7, true},
        {"Error:", 1, false},
        {"error: no", 1, false},
        {"Error Setting Command: Invalid Arguments.", 1, true},
        {"Error Processing Reset Command.", 1, true},
        {"Error Setting Command: Invalid Arguments.", 2, false},
        {"OK", 1, false},
    };
    for (const Row& row : rows)
        EXPECT_EQ(meansFailure(row.lastLine, row.lines), row.failure) << row.lastLine << ", " << row.lines;
}
