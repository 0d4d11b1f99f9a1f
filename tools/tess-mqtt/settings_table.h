#pragma once

#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

/// What is wrong with a file of settings, with its name and the line.
class SettingsError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Which settings a file may have: lines `key = value`, empty lines, and lines that begin with '#'.
/// Blanks around key and value do not count. A key may stand several times where its taker says
/// nothing against it.
/// Threads: one.
class SettingsTable {
public:
    /// Takes a value. @return what is wrong with it, as "is no number"; empty when nothing is
    using Take = std::function<std::string(const std::string& value)>;

    void add(const std::string& key, Take take) { takers_[key] = std::move(take); }

    /// Keys that are plain texts, not empty.
    void addText(const std::string& key, std::string& text);

    /// "yes" or "no".
    void addSwitch(const std::string& key, bool& on);

    /// Whole numbers within limits, both included.
    void addNumber(const std::string& key, long least, long most, long& number);

    /// @param name  of the file, for what is said
    /// @throws SettingsError  at the first line that is wrong
    void read(std::string_view text, const std::string& name) const;

private:
    std::string take(std::string_view line) const;

    std::map<std::string, Take> takers_;
};

/// The whole text of a file.
/// @throws SettingsError  it cannot be read
std::string settingsFileText(const std::string& path);
