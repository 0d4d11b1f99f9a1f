#pragma once

#include <set>
#include <string>
#include <string_view>
#include <vector>

/// Knows what can stand in a command line: the built-in commands, and the words of the lines seen
/// so far.
/// Threads: one.
class WordCompletion {
public:
    WordCompletion();

    /// Remembers the words of a line.
    void see(std::string_view line);

    /// What the beginning of a line could go on with: its last word, completed. Without regard to
    /// case, as tessd reads addresses and its own commands.
    /// @param line  up to the place of the cursor
    /// @return whole words, in order; none when the line ends with white space behind a word
    std::vector<std::string> complete(std::string_view line) const;

    /// @return what stands behind the last white space or "|" of the beginning of a line
    static std::string_view lastWord(std::string_view line);

    /// What all of these words begin with.
    static std::string commonBeginning(const std::vector<std::string>& words);

private:
    std::set<std::string> words_;
};
