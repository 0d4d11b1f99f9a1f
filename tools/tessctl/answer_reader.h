#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// Takes answers out of what the daemon sends. An answer ends with an empty line, or is the line "?" alone, or is over when
/// nothing more comes for a while, which the caller notices.
/// Threads: one.
class TAnswerReader {
public:
    /// What has been taken in so far, in order.
    struct Progress {
        std::vector<std::string>
            lines; ///< whole lines without their ends; the empty line at an answer's end is not among them
        std::size_t answers = 0;  ///< how many answers have ended
        std::size_t refusals = 0; ///< how many of them were "?"
    };

    /// @return what the bytes have brought to light
    Progress take(std::string_view bytes);

    /// Nothing more comes: what there is of an answer is all of it.
    Progress takePause();

    /// @return true between the first byte of an answer and its end
    bool insideAnswer() const { return linesOfAnswer_ > 0 || !rest_.empty(); }

private:
    void takeLine(std::string line, Progress& progress);
    void endAnswer(Progress& progress);

    std::string rest_; ///< a line without its end
    std::size_t linesOfAnswer_ = 0;
};
