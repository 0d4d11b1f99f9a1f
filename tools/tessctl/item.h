#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// One line of what tessd tells of itself: a word, then keys with values.
class Item {
public:
    struct Value {
        bool isText;       ///< stood in quotes
        std::string shown; ///< as it may be printed: what cannot be is left as \xHH
        std::string bytes; ///< as it was
    };

    /// @return nothing for a line that is none
    static std::optional<Item> parse(std::string_view line);

    /// Adds a key with a value.
    void add(std::string key, Value value) { values_.emplace_back(std::move(key), std::move(value)); }

    const std::string& word() const { return word_; }
    const std::vector<std::pair<std::string, Value>>& values() const { return values_; }

    /// @return null: the line has no such key
    const Value* find(std::string_view key) const;

    /// As it may be printed; empty where there is none.
    std::string text(std::string_view key) const;

    /// 0 where there is none.
    std::int64_t number(std::string_view key) const;

private:
    std::string word_;
    std::vector<std::pair<std::string, Value>> values_;
};

/// The items of a text, in order; lines that are none are left out.
std::vector<Item> parseItems(std::string_view text);
