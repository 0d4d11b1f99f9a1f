#include "tools/tessctl/answer_reader.h"

#include <utility>

bool meansFailure(std::string_view lastLine, std::size_t lines)
{
    if (lastLine.starts_with("Error: ")) return true;
    return lines == 1 && (lastLine == "?" || lastLine == "Error Setting Command: Invalid Arguments." ||
                          lastLine == "Error Processing Reset Command.");
}

AnswerReader::Progress AnswerReader::take(std::string_view bytes)
{
    Progress progress;
    for (std::size_t end; (end = bytes.find('\n')) != std::string_view::npos; bytes.remove_prefix(end + 1)) {
        rest_ += bytes.substr(0, end);
        if (rest_.ends_with('\r')) rest_.pop_back();
        takeLine(std::exchange(rest_, {}), progress);
    }
    rest_ += bytes;
    return progress;
}

AnswerReader::Progress AnswerReader::takePause()
{
    Progress progress;
    if (rest_.ends_with('\r')) rest_.pop_back();
    if (!rest_.empty()) takeLine(std::exchange(rest_, {}), progress);
    if (!answer_.empty()) endAnswer(progress);
    return progress;
}

void AnswerReader::takeLine(std::string line, Progress& progress)
{
    if (line.empty()) {
        if (!answer_.empty()) endAnswer(progress); // otherwise it belongs to no answer
        return;
    }
    const bool refused = answer_.empty() && line == "?";
    progress.lines.push_back(line);
    answer_.push_back(std::move(line));
    if (refused) endAnswer(progress);
}

void AnswerReader::endAnswer(Progress& progress)
{
    Answer answer{{}, meansFailure(answer_.back(), answer_.size())};
    for (const std::string& line : std::exchange(answer_, {}))
        answer.text.append(answer.text.empty() ? "" : "\n").append(line);
    progress.answers.push_back(std::move(answer));
}
