#include "tools/tessctl/item_json.h"

#include <charconv>
#include <cstdint>
#include <nlohmann/json.hpp>

#include "tools/tessctl/status_query.h"

namespace {

nlohmann::ordered_json jsonOf(const Item::Value& value)
{
    if (value.isText) return value.bytes;
    const char* const end = value.bytes.data() + value.bytes.size();
    std::int64_t whole = 0;
    if (std::from_chars(value.bytes.data(), end, whole).ptr == end) return whole;
    double decimal = 0;
    if (std::from_chars(value.bytes.data(), end, decimal).ptr == end) return decimal;
    return value.bytes; // an identifier in hexadecimal
}

} // namespace

nlohmann::ordered_json jsonOf(const Item& item)
{
    nlohmann::ordered_json object = nlohmann::ordered_json::object();
    for (const auto& [key, value] : item.values())
        object[key] = jsonOf(value);
    return object;
}

nlohmann::ordered_json jsonOfAll(const std::vector<Item>& items, std::string_view word)
{
    nlohmann::ordered_json array = nlohmann::ordered_json::array();
    for (const Item& item : items)
        if (item.word() == word) array.push_back(jsonOf(item));
    return array;
}

nlohmann::ordered_json statusJson(const std::vector<Item>& items)
{
    return {{"daemon", jsonOf(itemOf(items, "daemon"))},
            {"count", jsonOf(itemOf(items, "count"))},
            {"ports", jsonOfAll(items, "port")},
            {"connections", jsonOfAll(items, "connection")},
            {"processes", jsonOfAll(items, "process")}};
}

std::string jsonText(const nlohmann::ordered_json& json, int indent)
{
    return json.dump(indent, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}
