// Whatever a daemon sends, in whatever pieces, against a model of what an answer is; and what a
// process of ours answers, which must always be read as one answer.
#include "framework/orb_attachment_msg.h"
#include "framework/reply_text.h"
#include "tests/fuzz/fuzz_check.h"
#include "tests/fuzz/fuzz_input.h"
#include "tools/tessctl/answer_reader.h"

namespace {

struct Seen {
    std::vector<std::string> lines;
    std::vector<std::string> answers;
    std::vector<bool> failed;

    bool operator==(const Seen&) const = default;

    void add(const AnswerReader::Progress& progress)
    {
        lines.insert(lines.end(), progress.lines.begin(), progress.lines.end());
        for (const Answer& answer : progress.answers) {
            answers.push_back(answer.text);
            failed.push_back(answer.failed);
        }
    }
};

/// Lines without their ends; the last one may have none.
std::vector<std::string> linesOf(const std::string& all)
{
    std::vector<std::string> lines(1);
    for (const char c : all) {
        if (c == '\n')
            lines.emplace_back();
        else
            lines.back() += c;
    }
    for (std::string& line : lines)
        if (line.ends_with('\r')) line.pop_back();
    return lines;
}

bool isRefusal(const std::vector<std::string>& answer)
{
    if (answer.back().starts_with("Error: ")) return true;
    return answer.size() == 1 && (answer[0] == "?" || answer[0] == "Error Setting Command: Invalid Arguments." ||
                                  answer[0] == "Error Processing Reset Command.");
}

Seen byRules(const std::string& all)
{
    Seen seen;
    std::vector<std::string> answer;
    const auto end = [&] {
        if (answer.empty()) return;
        std::string text;
        for (const std::string& line : answer)
            text += (text.empty() ? "" : "\n") + line;
        seen.answers.push_back(text);
        seen.failed.push_back(isRefusal(answer));
        answer.clear();
    };
    for (const std::string& line : linesOf(all)) {
        if (line.empty()) {
            end();
            continue;
        }
        seen.lines.push_back(line);
        answer.push_back(line);
        if (answer.size() == 1 && line == "?") end();
    }
    end();
    return seen;
}

void checkReading(FuzzInput& input)
{
    AnswerReader reader;
    Seen seen;
    std::string all;
    while (!input.empty()) {
        const std::string piece = input.take(input.byte());
        all += piece;
        seen.add(reader.take(piece));
    }
    seen.add(reader.takePause());
    fuzzCheck(!reader.insideAnswer(), "nothing is left behind");
    fuzzCheck(seen == byRules(all), "answers are what the rules give");
}

void checkReply(FuzzInput& input)
{
    std::string failure = input.take(input.byte() % 32U);
    std::erase_if(failure, [](char c) { return c == '\n' || c == '\r' || c == '\0'; });
    const std::string reply = replyText(input.rest(), failure);
    std::string joined;
    AnswerReader reader;
    Seen seen;
    for (const std::string_view part : replyMessages(reply)) {
        fuzzCheck(!part.empty() && part.size() < MSG_TEXT_BYTES, "a message fits a record");
        joined += part;
        seen.add(reader.take(part));
    }
    fuzzCheck(joined == reply, "the messages are the whole reply");
    fuzzCheck(reply.find('\0') == std::string::npos, "no record ends early");
    fuzzCheck(seen.answers.size() == 1 && !reader.insideAnswer(), "a reply is read as one answer");
    if (!failure.empty()) fuzzCheck(seen.failed[0], "a failure is read as one");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzInput input(data, size);
    if (input.byte() % 2 == 0)
        checkReading(input);
    else
        checkReply(input);
    return 0;
}
