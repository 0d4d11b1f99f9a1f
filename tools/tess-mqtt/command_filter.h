#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// Which commands may come from afar: rules "allow PATTERN" and "deny PATTERN", of which the first
/// that matches a command decides. Behind the last rule stand "deny RESET*" and "allow *". In a
/// pattern '*' is any text and '?' any character, but in one that allows they are no blanks, so
/// that "allow s3.* GET*" does not let "s3.ENC SETX GET" come; only a '*' at its end is any text.
/// Case does not count, white space inside a command counts as one blank, and behind the word DELAY
/// there always is one.
/// Threads: any, after the last add().
class CommandFilter {
public:
    static constexpr std::size_t MOST_DELAYED_BYTES = 255; ///< of a delayed line, tessd runs no more

    /// @return what is wrong with the rule; empty when nothing is
    std::string add(std::string_view rule);

    /// Whether every command of the line may come, those behind a DELAY too: as they stand there,
    /// and as tessd runs them, which cuts a delayed line that is too long.
    bool allows(std::string_view line) const;

private:
    struct Rule {
        bool allow;
        std::string pattern;
    };

    bool allowsAll(std::string_view line) const;
    bool allowsCommand(const std::string& command) const;

    std::vector<Rule> rules_;
};

/// What '*' and '?' stand for in a pattern.
enum class Stars {
    ofAnything,
    withinWords, ///< for text without blanks, but a '*' at the pattern's end for any
};

/// Whether a pattern as above matches all of a text.
bool matchesPattern(std::string_view pattern, std::string_view text, Stars stars = Stars::ofAnything);
