#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <type_traits>

#include "framework/fixed_text.h"
#include "framework/log_mgr.h"

/// The integers that can be logged as numbers: not bool and not char.
template <class Value>
concept Integer = std::integral<Value> && !std::same_as<Value, bool> && !std::same_as<Value, char>;

/// A value in a log message: an integer, in decimal.
struct Number {
    std::int64_t value;

    template <Integer Value> constexpr Number(Value number) : value(static_cast<std::int64_t>(number)) {}
};

/// A value in a log message: an integer, in lower-case hexadecimal without leading zeros.
struct Hex {
    std::uint32_t value;
};

/// A value in a log message: a text up to its NUL. Not null; stays the caller's.
struct Text {
    const char* value;

    constexpr Text(const char* text) : value(text) {}
};

/// @return how many "{}" there are; a brace that stands otherwise does not compile in a LogMessage
consteval std::size_t countGaps(std::string_view text)
{
    std::size_t gaps = 0;
    for (std::size_t i = text.find_first_of("{}"); i != std::string_view::npos; i = text.find_first_of("{}", i + 2)) {
        if (!text.substr(i).starts_with("{}")) throw "a brace that is no part of {}";
        ++gaps;
    }
    return gaps;
}

/// One row of a table of log messages: its number and its whole text, in which {} stands for each
/// value that varies. A row whose text has not as many {} as it has types does not compile, nor
/// does a call with other values.
///
///     inline constexpr LogMessage<Hex, Text> telnetOpened{6000, "Opened telnet connection 0x{} from {}"};
///
/// @tparam Values  what is put into the text, in order, each of them Number, Hex or Text
template <class... Values> struct LogMessage {
    static_assert(((std::same_as<Values, Number> || std::same_as<Values, Hex> || std::same_as<Values, Text>)&&...));

    /// @param rowText  a literal
    consteval LogMessage(TTraceMsg number, const char* rowText) : id(number), text(rowText)
    {
        if (countGaps(rowText) != sizeof...(Values)) throw "there must be one {} for each value";
    }

    TTraceMsg id;
    const char* text;
};

/// Longest text that is composed of a row and its values, its NUL included; what does not fit is
/// cut.
inline constexpr std::size_t LOG_TEXT_BYTES = 256;
using LogText = FixedText<LOG_TEXT_BYTES>;

/// The same for rows whose values may be long: as much as the log takes in a line.
inline constexpr std::size_t LONG_LOG_TEXT_BYTES = 4096;

template <std::size_t Capacity> void putValue(FixedText<Capacity>& to, Number number)
{
    to << number.value;
}

template <std::size_t Capacity> void putValue(FixedText<Capacity>& to, Hex number)
{
    to.hex(number.value);
}

template <std::size_t Capacity> void putValue(FixedText<Capacity>& to, Text text)
{
    to << text.value;
}

/// @return the row's text with the values in it
template <std::size_t Capacity = LOG_TEXT_BYTES, class... Values>
FixedText<Capacity> composed(const LogMessage<Values...>& message, const std::type_identity_t<Values>&... values)
{
    FixedText<Capacity> line;
    std::string_view rest = message.text;
    [[maybe_unused]] const auto putNext = [&line, &rest](const auto& value) {
        const std::size_t gap = rest.find("{}");
        line << rest.substr(0, gap);
        putValue(line, value);
        rest.remove_prefix(gap + 2);
    };
    (putNext(values), ...);
    return line << rest;
}

/// Logs a row with its values, as TLogMgr::log() does: nothing is allocated, and nobody waits.
/// Threads: any; also from a signal handler.
template <class... Values>
void logMessage(const LogMessage<Values...>& message, const std::type_identity_t<Values>&... values)
{
    if constexpr (sizeof...(Values) == 0)
        logMgr.log(message.id, message.text);
    else
        logMgr.log(message.id, composed(message, values...).c_str());
}

/// The same for a row with a long text in it. Threads: any.
template <class... Values>
void logLongMessage(const LogMessage<Values...>& message, const std::type_identity_t<Values>&... values)
{
    logMgr.log(message.id, composed<LONG_LOG_TEXT_BYTES>(message, values...).c_str());
}
