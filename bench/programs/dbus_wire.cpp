#include "bench/programs/dbus_wire.h"

#include <cstring>
#include <unistd.h>

#include "bench/programs/stream.h"

namespace dbus {

namespace {

constexpr std::size_t FIXED_HEADER = 16;

enum Field : char {
    path = 1,
    interfaceName = 2,
    memberName = 3,
    replySerial = 5,
    destinationName = 6,
    senderName = 7,
    signature = 8
};

constexpr std::size_t aligned(std::size_t n, std::size_t to)
{
    return (n + to - 1) / to * to;
}

void pad(std::string& to, std::size_t boundary)
{
    to.resize(aligned(to.size(), boundary), '\0');
}

void putWord(std::string& to, std::uint32_t word)
{
    pad(to, 4);
    to.append(reinterpret_cast<const char*>(&word), sizeof word);
}

std::uint32_t wordAt(std::string_view bytes, std::size_t at)
{
    std::uint32_t word = 0;
    if (at + sizeof word <= bytes.size()) std::memcpy(&word, bytes.data() + at, sizeof word);
    return word;
}

void putString(std::string& to, std::string_view text)
{
    putWord(to, static_cast<std::uint32_t>(text.size()));
    to.append(text).push_back('\0');
}

/// @param kind  's' or 'o'
void putField(std::string& to, Field field, char kind, std::string_view value)
{
    pad(to, 8);
    to.append({field, 1, kind, '\0'});
    putString(to, value);
}

void putSignature(std::string& to, std::string_view value)
{
    pad(to, 8);
    to.append({signature, 1, 'g', '\0', static_cast<char>(value.size())}).append(value).push_back('\0');
}

/// @param head  the fixed header with its fields
std::string finished(std::string head, std::string_view body)
{
    const auto fieldBytes = static_cast<std::uint32_t>(head.size() - FIXED_HEADER);
    const auto bodyBytes = static_cast<std::uint32_t>(body.size());
    std::memcpy(head.data() + 12, &fieldBytes, sizeof fieldBytes);
    std::memcpy(head.data() + 4, &bodyBytes, sizeof bodyBytes);
    pad(head, 8);
    return head.append(body);
}

std::string fixedHeader(Type type, std::uint32_t serial)
{
    std::string head{'l', static_cast<char>(type), type == Type::call ? '\0' : '\1', '\1'};
    head.resize(FIXED_HEADER, '\0');
    std::memcpy(head.data() + 8, &serial, sizeof serial);
    return head;
}

std::string callHead(std::uint32_t serial, std::string_view destination, std::string_view interface,
                     std::string_view member)
{
    std::string head = fixedHeader(Type::call, serial);
    putField(head, path, 'o', "/");
    putField(head, destinationName, 's', destination);
    putField(head, interfaceName, 's', interface);
    putField(head, memberName, 's', member);
    return head;
}

std::string_view stringAt(std::string_view bytes, std::size_t at)
{
    return at + 4 <= bytes.size() ? bytes.substr(at + 4, wordAt(bytes, at)) : std::string_view();
}

/// @return where the next field begins
std::size_t takeField(std::string_view bytes, std::size_t at, Message& message)
{
    const char field = bytes[at];
    const char kind = bytes[at + 2];
    at += 4;
    if (kind == 'g') return at + 2 + static_cast<std::uint8_t>(bytes[at]);
    if (kind == 'u') {
        if (field == replySerial) message.answersTo = wordAt(bytes, at);
        return at + 4;
    }
    const std::string_view value = stringAt(bytes, at);
    if (field == senderName) message.sender = value;
    return at + 4 + value.size() + 1;
}

} // namespace

std::optional<Message> first(std::string_view bytes)
{
    if (bytes.size() < FIXED_HEADER) return std::nullopt;
    const std::size_t fieldsEnd = FIXED_HEADER + wordAt(bytes, 12);
    const std::size_t body = aligned(fieldsEnd, 8);
    Message message;
    message.length = body + wordAt(bytes, 4);
    if (bytes.size() < message.length) return std::nullopt;
    message.type = static_cast<Type>(bytes[1]);
    message.serial = wordAt(bytes, 8);
    for (std::size_t at = FIXED_HEADER; at + 4 < fieldsEnd;)
        at = aligned(takeField(bytes, at, message), 8);
    message.text = stringAt(bytes.substr(0, message.length), body);
    return message;
}

std::string call(std::uint32_t serial, std::string_view destination, std::string_view interface,
                 std::string_view member, const std::string_view* text)
{
    std::string head = callHead(serial, destination, interface, member);
    std::string body;
    if (text != nullptr) {
        putSignature(head, "s");
        putString(body, *text);
    }
    return finished(std::move(head), body);
}

std::string requestName(std::uint32_t serial, std::string_view name)
{
    std::string head = callHead(serial, "org.freedesktop.DBus", "org.freedesktop.DBus", "RequestName");
    putSignature(head, "su");
    std::string body;
    putString(body, name);
    putWord(body, 0);
    return finished(std::move(head), body);
}

std::string answer(std::uint32_t serial, const Message& to, std::string_view text)
{
    std::string head = fixedHeader(Type::answer, serial);
    pad(head, 8);
    head.append({replySerial, 1, 'u', '\0'});
    putWord(head, to.serial);
    putField(head, destinationName, 's', to.sender);
    putSignature(head, "s");
    std::string body;
    putString(body, text);
    return finished(std::move(head), body);
}

bool logIn(int fd)
{
    static constexpr const char* digits = "0123456789abcdef";
    std::string hexUser;
    for (const char c : std::to_string(::geteuid()))
        hexUser.append({digits[c >> 4], digits[c & 15]});
    writeAll(fd, std::string(1, '\0') + "AUTH EXTERNAL " + hexUser + "\r\n");
    std::string reply;
    while (reply.find("\r\n") == std::string::npos)
        if (!readSome(fd, reply)) return false;
    if (!reply.starts_with("OK")) return false;
    writeAll(fd, "BEGIN\r\n" + call(1, "org.freedesktop.DBus", "org.freedesktop.DBus", "Hello", nullptr));
    std::string input;
    for (;;) {
        while (const auto message = first(input)) {
            if (message->type == Type::answer) return true;
            if (message->type == Type::error) return false;
            input.erase(0, message->length);
        }
        if (!readSome(fd, input)) return false;
    }
}

} // namespace dbus
