#pragma once

#include <string>
#include <string_view>
#include <vector>

/// Which commands may come from afar: rules "allow PATTERN" and "deny PATTERN", of which the first
/// that matches a command decides. Behind the last rule stand "deny RESET*" and "allow *". In a
/// pattern '*' is any text and '?' any character; case does not count, and white space inside a
/// command counts as one blank.
class CommandFilter {
public:
    /// @return what is wrong with the rule; empty when nothing is
    std::string add(std::string_view rule);

    /// Whether every command of the line may come, those behind a DELAY too.
    bool allows(std::string_view line) const;

private:
    struct Rule {
        bool allow;
        std::string pattern;
    };

    bool allowsCommand(const std::string& command) const;

    std::vector<Rule> rules_;
};

/// Whether a pattern as above matches all of a text.
bool matchesPattern(std::string_view pattern, std::string_view text);
