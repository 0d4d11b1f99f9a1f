#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// What is sent behind a line on /tmp/xcp, to find out which answers tessd has given to that line
/// by itself: those in front of the fence's.
///
/// tessd's own answers ("?", "0", "OK", ...) come in the order of the lines, but with a tag that
/// may be that of any earlier command. A fence is a line that tessd always answers by itself, and
/// with a row of answers that a part of the line's own answers, however they go on, cannot be taken
/// for: "0" alone where the line cannot be answered with "0", else "0" and then more "?" than the
/// line has commands.
/// Threads: one.
class Fence {
public:
    explicit Fence(std::string_view line);

    /// The fence, as a line without an end.
    const std::string& line() const { return line_; }

    /// Takes the next answer that tessd has given by itself.
    /// @return true: that was the last of the fence
    bool take(std::string text);

    /// How many answers were in front of the fence, once it is complete.
    std::size_t before() const { return answers_.size(); }

private:
    bool isComplete() const;

    std::string line_;
    std::vector<std::string> expected_;
    std::vector<std::string> answers_;
};

/// Whether a line is as a fence is.
bool isFence(std::string_view line);
