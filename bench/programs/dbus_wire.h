#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// Just enough of the D-Bus protocol (little endian) to ask a service and to be one.
namespace dbus {

enum class Type : std::uint8_t { call = 1, answer = 2, error = 3, signal = 4 };

struct Message {
    Type type{};
    std::uint32_t serial = 0;
    std::uint32_t answersTo = 0; ///< serial of the call
    std::string_view sender;
    std::string_view text; ///< the body, when it is one string
    std::size_t length = 0;
};

/// @return the message in front of `bytes`, which it points into; none when it is not whole
std::optional<Message> first(std::string_view bytes);

/// A method call with one string for its argument, without one when `text` is null.
std::string call(std::uint32_t serial, std::string_view destination, std::string_view interface,
                 std::string_view member, const std::string_view* text);

/// org.freedesktop.DBus.RequestName.
std::string requestName(std::uint32_t serial, std::string_view name);

/// The answer to a call, with one string.
std::string answer(std::uint32_t serial, const Message& to, std::string_view text);

/// Authenticates as the calling user and says Hello, on a blocking socket.
/// @return false when the bus refuses
bool logIn(int fd);

} // namespace dbus
