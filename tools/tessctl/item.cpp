#include "tools/tessctl/item.h"

#include <algorithm>
#include <charconv>

namespace {

/// Takes a value apart from the front of a line.
class ValueReader {
public:
    explicit ValueReader(std::string_view& rest) : rest_(rest) {}

    std::optional<Item::Value> read()
    {
        if (!rest_.starts_with('"')) return bare();
        rest_.remove_prefix(1);
        value_.isText = true;
        while (!rest_.empty() && rest_.front() != '"')
            if (!takeCharacter()) return std::nullopt;
        if (rest_.empty()) return std::nullopt; // no quote ends it
        rest_.remove_prefix(1);
        if (rest_.starts_with("...")) takeCut();
        return value_;
    }

private:
    std::optional<Item::Value> bare()
    {
        value_.shown = rest_.substr(0, rest_.find(' '));
        value_.bytes = value_.shown;
        rest_.remove_prefix(value_.shown.size());
        return value_;
    }

    bool takeCharacter()
    {
        if (rest_.front() != '\\') return take(1, rest_.front());
        if (rest_.size() < 2) return false;
        if (rest_[1] != 'x') return take(2, rest_[1]);
        unsigned byte = 0;
        const std::string_view digits = rest_.substr(2, 2);
        const auto end = std::from_chars(digits.data(), digits.data() + digits.size(), byte, 16).ptr;
        if (digits.size() < 2 || end != digits.data() + 2) return false;
        value_.shown += rest_.substr(0, 4);
        value_.bytes += static_cast<char>(byte);
        rest_.remove_prefix(4);
        return true;
    }

    bool take(std::size_t count, char character)
    {
        value_.shown += character;
        value_.bytes += character;
        rest_.remove_prefix(count);
        return true;
    }

    void takeCut()
    {
        value_.shown += "...";
        value_.bytes += "...";
        rest_.remove_prefix(3);
    }

    std::string_view& rest_;
    Item::Value value_{false, {}, {}};
};

} // namespace

std::optional<Item> Item::parse(std::string_view line)
{
    Item item;
    item.word_ = line.substr(0, line.find(' '));
    if (item.word_.empty() || item.word_.find('=') != std::string::npos) return std::nullopt;
    line.remove_prefix(item.word_.size());
    while (!line.empty()) {
        const std::size_t sign = line.find('=');
        if (line.front() != ' ' || sign == std::string_view::npos) return std::nullopt;
        std::string key(line.substr(1, sign - 1));
        line.remove_prefix(sign + 1);
        auto value = ValueReader(line).read();
        if (!value) return std::nullopt;
        item.values_.emplace_back(std::move(key), std::move(*value));
    }
    return item;
}

const Item::Value* Item::find(std::string_view key) const
{
    const auto found = std::ranges::find_if(values_, [&](const auto& each) { return each.first == key; });
    return found == values_.end() ? nullptr : &found->second;
}

std::string Item::text(std::string_view key) const
{
    const Value* const value = find(key);
    return value == nullptr ? std::string() : value->shown;
}

std::int64_t Item::number(std::string_view key) const
{
    const std::string digits = text(key);
    std::int64_t number = 0;
    (void)std::from_chars(digits.data(), digits.data() + digits.size(), number); // what is no number counts as 0
    return number;
}

std::vector<Item> parseItems(std::string_view text)
{
    std::vector<Item> items;
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(line.size() + 1, text.size()));
        if (auto item = Item::parse(line)) items.push_back(std::move(*item));
    }
    return items;
}
