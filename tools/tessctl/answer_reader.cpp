#include "tools/tessctl/answer_reader.h"

#include <utility>

TAnswerReader::Progress TAnswerReader::take(std::string_view bytes)
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

TAnswerReader::Progress TAnswerReader::takePause()
{
    Progress progress;
    if (rest_.ends_with('\r')) rest_.pop_back();
    if (!rest_.empty()) takeLine(std::exchange(rest_, {}), progress);
    if (linesOfAnswer_ > 0) endAnswer(progress);
    return progress;
}

void TAnswerReader::takeLine(std::string line, Progress& progress)
{
    if (line.empty()) {
        if (linesOfAnswer_ > 0) endAnswer(progress); // otherwise it belongs to no answer
        return;
    }
    const bool refused = linesOfAnswer_ == 0 && line == "?";
    progress.lines.push_back(std::move(line));
    ++linesOfAnswer_;
    if (!refused) return;
    ++progress.refusals;
    endAnswer(progress);
}

void TAnswerReader::endAnswer(Progress& progress)
{
    ++progress.answers;
    linesOfAnswer_ = 0;
}
