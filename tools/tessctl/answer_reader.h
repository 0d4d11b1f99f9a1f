#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// A whole answer.
struct Answer {
    std::string text;    ///< its lines with a LF between them
    bool failed = false; ///< see meansFailure()
};

/// Whether an answer says that the command was not carried out: it is "?", its last line begins
/// with "Error: ", as processes write it, or it is one of those that tessd has for its own
/// commands.
/// @param lastLine  of the answer, without its end
/// @param lines     how many there are
bool meansFailure(std::string_view lastLine, std::size_t lines);

/// Takes answers out of what the daemon sends. An answer ends with an empty line, or is the line
/// "?" alone, or is over when nothing more comes for a while, which the caller notices.
/// Threads: one.
class AnswerReader {
public:
    /// What has been taken in so far, in order.
    struct Progress {
        std::vector<std::string>
            lines; ///< whole lines without their ends; the empty line at an answer's end is not among them
        std::vector<Answer> answers; ///< those that have ended
    };

    /// @return what has become whole by these bytes
    Progress take(std::string_view bytes);

    /// Nothing more comes: what there is of an answer is all of it.
    Progress takePause();

    /// @return true between the first byte of an answer and its end
    bool insideAnswer() const { return !answer_.empty() || !rest_.empty(); }

private:
    void takeLine(std::string line, Progress& progress);
    void endAnswer(Progress& progress);

    std::string rest_;                ///< a line without its end
    std::vector<std::string> answer_; ///< the lines of an answer without its end
};
