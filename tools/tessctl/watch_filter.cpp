#include "tools/tessctl/watch_filter.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <utility>

#include "common/text.h"
#include "tools/tessctl/time_text.h"

namespace {

struct Colour {
    std::string_view word;
    const char* escape;
};

constexpr std::array COLOURS{
    Colour{"line", "\x1b[36m"},       Colour{"forward", "\x1b[34m"}, Colour{"answer", "\x1b[32m"},
    Colour{"drop", "\x1b[35m"},       Colour{"refuse", "\x1b[31m"},  Colour{"connect", "\x1b[33m"},
    Colour{"disconnect", "\x1b[33m"}, Colour{"login", "\x1b[33m"},   Colour{"register", "\x1b[1m"},
    Colour{"unregister", "\x1b[1m"},  Colour{"reset", "\x1b[1;31m"}, Colour{"lost", "\x1b[1;31m"},
};

/// When it happened, "08:34:56.007"; without a time as many blanks.
std::string clockText(const Item& event)
{
    const std::string time = event.text("time");
    const std::size_t point = time.find('.');
    if (point == std::string::npos) return std::string(12, ' ');
    const auto milliseconds =
        std::chrono::milliseconds(event.number("time") * 1000 + std::stol(time.substr(point + 1)));
    return timeText(std::chrono::system_clock::time_point(milliseconds)).substr(11, 12);
}

std::string padded(std::string text, std::size_t width)
{
    text.resize(std::max(text.size(), width), ' ');
    return text;
}

/// A text without the line ends behind it, which nearly every answer has.
std::string withoutEnds(const Item::Value& text)
{
    constexpr std::size_t ESCAPE = 4; // \xHH
    const std::size_t ends = text.bytes.size() - withoutLineEnds(text.bytes).size();
    return text.shown.substr(0, text.shown.size() - ends * ESCAPE);
}

/// What stands behind time, word and connection.
std::string rest(const Item& event, const ProcessNames& names)
{
    std::string text;
    for (const auto& [key, value] : event.values()) {
        if (key == "time" || key == "connection" || key == "port") continue;
        if (!text.empty()) text += ' ';
        text += key == "text" ? withoutEnds(value) : key + "=" + value.shown;
        if (key != "process" || event.find("name") != nullptr) continue;
        if (const std::string name = names.of(value.shown); !name.empty()) text += " (" + name + ")";
    }
    return text;
}

} // namespace

WatchFilter::WatchFilter(std::string name, std::string port) : name_(std::move(name)), port_(std::move(port)) {}

void WatchFilter::learn(const std::vector<Item>& status)
{
    for (const Item& item : status)
        if (item.word() == "process" && equalsNoCase(item.text("name"), name_)) address_ = item.text("address");
}

bool WatchFilter::wants(const Item& event)
{
    if (event.word() == "watch") return false; // tessd's answer to the request
    if (event.word() == "lost") return true;
    const bool isNamed = !name_.empty() && equalsNoCase(event.text("name"), name_);
    if (isNamed && event.word() == "register") address_ = event.text("process");
    if (!name_.empty() && !isNamed && !isOfProcess(event)) return false;
    return port_.empty() || event.text("port") == port_;
}

bool WatchFilter::isOfProcess(const Item& event) const
{
    return !address_.empty() && event.text("process") == address_;
}

std::string eventText(const Item& event, const ProcessNames& names, bool colour)
{
    const auto* const found = std::ranges::find(COLOURS, event.word(), &Colour::word);
    const bool isColoured = colour && found != COLOURS.end();
    std::string text =
        clockText(event) + " " + padded(event.text("port"), 6) + " " + padded(event.text("connection"), 10) + " ";
    text += (isColoured ? found->escape : "") + padded(event.word(), 10) + (isColoured ? "\x1b[0m" : "");
    const std::string behind = rest(event, names);
    return behind.empty() ? text : text + " " + behind;
}
