#include "bench/programs/protocol.h"

#include <array>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <optional>

#include "bench/programs/dbus_wire.h"
#include "bench/programs/stream.h"

namespace {

constexpr std::string_view DBUS_NAME = "bench.Process";
constexpr std::string_view BUS = "org.freedesktop.DBus";

/// A command as clients of tessd write it, `bytes` long; a short one is no shorter than its address
/// and its word.
std::string commandText(std::size_t bytes)
{
    std::string text = "s3.ENC SETX ";
    text.resize(std::max(bytes, text.size() + 1), '5');
    return text;
}

std::string frame(std::string_view text)
{
    std::array<std::uint32_t, 4> head{0, 0, 7, static_cast<std::uint32_t>(text.size())};
    return std::string(reinterpret_cast<const char*>(head.data()), sizeof head).append(text);
}

class IpcProtocol : public Protocol {
public:
    IpcProtocol(std::size_t text, std::size_t answerText) : line_(commandText(text) + "\n"), answerBytes_(answerText) {}

    void begin(int /*fd*/, int /*number*/) override {}
    std::string request(int /*number*/) override { return line_; }

    std::size_t takeAnswers(std::string& input) override
    {
        const std::size_t answers = input.size() / answerBytes_;
        input.erase(0, answers * answerBytes_);
        return answers;
    }

    std::string probe() override { return "*\n"; }

private:
    std::string line_;
    std::size_t answerBytes_;
};

class XcpProtocol : public Protocol {
public:
    explicit XcpProtocol(std::size_t text) : frame_(frame(commandText(text) + "\n")) {}

    void begin(int /*fd*/, int /*number*/) override {}
    std::string request(int /*number*/) override { return frame_; }

    std::size_t takeAnswers(std::string& input) override
    {
        std::size_t answers = 0;
        std::size_t at = 0;
        std::uint32_t length = 0;
        for (; input.size() >= at + 16; ++answers, at += 16 + length) {
            std::memcpy(&length, input.data() + at + 12, sizeof length);
            if (input.size() < at + 16 + length) break;
        }
        input.erase(0, at);
        return answers;
    }

    std::string probe() override { return frame("*\n"); }

private:
    std::string frame_;
};

class DbusProtocol : public Protocol {
public:
    explicit DbusProtocol(std::size_t text) : text_(commandText(text)) {}

    void begin(int fd, int /*number*/) override
    {
        if (!dbus::logIn(fd)) giveUp("D-Bus log-in");
    }

    std::string request(int /*number*/) override
    {
        const std::string_view text = text_;
        return dbus::call(++serial_, DBUS_NAME, DBUS_NAME, "Ask", &text);
    }

    std::size_t takeAnswers(std::string& input) override
    {
        std::size_t answers = 0;
        std::size_t at = 0;
        while (const auto message = dbus::first(std::string_view(input).substr(at))) {
            if (message->type == dbus::Type::error) giveUp("D-Bus error: " + std::string(message->text));
            if (message->type == dbus::Type::answer) ++answers;
            at += message->length;
        }
        input.erase(0, at);
        return answers;
    }

    std::string probe() override { return dbus::call(++serial_, BUS, BUS, "GetId", nullptr); }

private:
    std::string text_;
    std::uint32_t serial_ = 10;
};

/// MQTT 3.1.1, quality of service 0.
namespace mqtt {

enum Packet : unsigned char { connect = 0x10, publish = 0x30, subscribe = 0x82, ping = 0xC0 };

std::string counted(std::string_view text)
{
    return std::string{static_cast<char>(text.size() >> 8), static_cast<char>(text.size() & 0xFF)}.append(text);
}

std::string packet(Packet kind, std::string_view rest)
{
    std::string bytes(1, static_cast<char>(kind));
    std::size_t left = rest.size();
    do {
        bytes.push_back(static_cast<char>((left & 0x7F) | (left > 0x7F ? 0x80 : 0)));
        left >>= 7;
    } while (left > 0);
    return bytes.append(rest);
}

std::string hello()
{
    return packet(connect, std::string("\0\4MQTT\4\2\0\0", 10) + counted(""));
}

std::string subscription(std::string_view topic)
{
    return packet(subscribe, std::string("\0\1", 2) + counted(topic) + '\0');
}

std::string publication(std::string_view topic, std::string_view text)
{
    return packet(publish, counted(topic).append(text));
}

struct Received {
    unsigned char kind;
    std::string_view rest;
    std::size_t length;
};

std::optional<Received> first(std::string_view bytes)
{
    std::size_t rest = 0;
    std::size_t at = 1;
    for (unsigned shift = 0;; shift += 7, ++at) {
        if (at >= bytes.size()) return std::nullopt;
        rest |= static_cast<std::size_t>(bytes[at] & 0x7F) << shift;
        if ((bytes[at] & 0x80) == 0) break;
    }
    const std::size_t length = at + 1 + rest;
    if (bytes.size() < length) return std::nullopt;
    return Received{static_cast<unsigned char>(bytes[0]), bytes.substr(at + 1, rest), length};
}

/// Waits for so many packets of the broker's own.
void expect(int fd, std::size_t packets)
{
    for (std::string input; packets > 0;) {
        if (!readSome(fd, input)) giveUp("MQTT log-in");
        for (; packets > 0; --packets) {
            const auto received = first(input);
            if (!received) break;
            input.erase(0, received->length);
        }
    }
}

} // namespace mqtt

class MqttProtocol : public Protocol {
public:
    explicit MqttProtocol(std::size_t text) : text_(commandText(text)) {}

    void begin(int fd, int number) override
    {
        writeAll(fd, mqtt::hello() + mqtt::subscription("a/" + std::to_string(number)));
        mqtt::expect(fd, 2);
    }

    std::string request(int number) override { return mqtt::publication("q/" + std::to_string(number), text_); }

    std::size_t takeAnswers(std::string& input) override
    {
        std::size_t answers = 0;
        std::size_t at = 0;
        while (const auto received = mqtt::first(std::string_view(input).substr(at))) {
            at += received->length;
            ++answers;
        }
        input.erase(0, at);
        return answers;
    }

    std::string probe() override { return mqtt::packet(mqtt::ping, ""); }

private:
    std::string text_;
};

/// RESP3, in which a connection may publish while it is subscribed.
namespace resp {

std::string command(std::initializer_list<std::string_view> words)
{
    std::string bytes = "*" + std::to_string(words.size()) + "\r\n";
    for (const std::string_view word : words)
        bytes.append("$" + std::to_string(word.size()) + "\r\n").append(word).append("\r\n");
    return bytes;
}

/// @return where the value that begins at `at` ends; 0: it is not whole
std::size_t endOf(std::string_view bytes, std::size_t at)
{
    const std::size_t lineEnd = bytes.find("\r\n", at);
    if (lineEnd == std::string_view::npos) return 0;
    const char kind = bytes[at];
    if (kind == '-') giveUp("redis: " + std::string(bytes.substr(at, lineEnd - at)));
    std::size_t number = 0;
    (void)std::from_chars(bytes.data() + at + 1, bytes.data() + lineEnd, number); // 0 where there is none
    std::size_t end = lineEnd + 2;
    if (kind == '$') return end + number + 2 <= bytes.size() ? end + number + 2 : 0;
    if (kind != '*' && kind != '>' && kind != '%') return end;
    for (std::size_t left = kind == '%' ? 2 * number : number; left > 0 && end > 0; --left)
        end = end < bytes.size() ? endOf(bytes, end) : 0;
    return end;
}

void begin(int fd, std::string_view channel)
{
    writeAll(fd, command({"HELLO", "3"}) + command({"SUBSCRIBE", channel}));
    std::string input;
    for (int replies = 0; replies < 2;) {
        if (!readSome(fd, input)) giveUp("redis log-in");
        for (std::size_t end = 1; replies < 2 && !input.empty() && (end = endOf(input, 0)) > 0; ++replies)
            input.erase(0, end);
    }
}

/// A message of a channel, not an answer to a command of one's own.
bool isMessage(std::string_view value)
{
    return value.starts_with(">3\r\n$7\r\nmessage");
}

} // namespace resp

class RedisProtocol : public Protocol {
public:
    explicit RedisProtocol(std::size_t text) : text_(commandText(text)) {}

    void begin(int fd, int number) override { resp::begin(fd, "a" + std::to_string(number)); }

    std::string request(int number) override
    {
        return resp::command({"PUBLISH", "q", std::to_string(number) + " " + text_});
    }

    std::size_t takeAnswers(std::string& input) override
    {
        std::size_t answers = 0;
        std::size_t at = 0;
        for (std::size_t end = 0; at < input.size() && (end = resp::endOf(input, at)) > 0; at = end)
            if (resp::isMessage(std::string_view(input).substr(at)) || input.compare(at, 5, "+PONG") == 0) ++answers;
        input.erase(0, at);
        return answers;
    }

    std::string probe() override { return "PING\r\n"; }

private:
    std::string text_;
};

} // namespace

std::unique_ptr<Protocol> makeProtocol(std::string_view name, std::size_t text, std::size_t answerText)
{
    if (name == "ipc") return std::make_unique<IpcProtocol>(text, answerText);
    if (name == "xcp") return std::make_unique<XcpProtocol>(text);
    if (name == "dbus") return std::make_unique<DbusProtocol>(text);
    if (name == "mqtt") return std::make_unique<MqttProtocol>(text);
    if (name == "redis") return std::make_unique<RedisProtocol>(text);
    errno = EINVAL;
    giveUp("protocol " + std::string(name));
}

void answerAsDbusService(int fd, std::size_t answerText)
{
    const std::string text(answerText, '0');
    std::uint32_t serial = 2;
    if (!dbus::logIn(fd)) giveUp("D-Bus log-in");
    writeAll(fd, dbus::requestName(serial, DBUS_NAME));
    std::string input;
    while (readSome(fd, input)) {
        std::string output;
        std::size_t at = 0;
        while (const auto message = dbus::first(std::string_view(input).substr(at))) {
            if (message->type == dbus::Type::call) output += dbus::answer(++serial, *message, text);
            at += message->length;
        }
        input.erase(0, at);
        writeAll(fd, output);
    }
}

void answerAsMqttClient(int fd, std::size_t answerText)
{
    const std::string text(answerText, '0');
    writeAll(fd, mqtt::hello() + mqtt::subscription("q/+"));
    mqtt::expect(fd, 2);
    std::string input;
    while (readSome(fd, input)) {
        std::string output;
        std::size_t at = 0;
        while (const auto received = mqtt::first(std::string_view(input).substr(at))) {
            const std::size_t topicBytes = static_cast<unsigned char>(received->rest[1]);
            output += mqtt::publication("a" + std::string(received->rest.substr(3, topicBytes - 1)), text);
            at += received->length;
        }
        input.erase(0, at);
        writeAll(fd, output);
    }
}

void answerAsRedisClient(int fd, std::size_t answerText)
{
    const std::string text(answerText, '0');
    resp::begin(fd, "q");
    std::string input;
    while (readSome(fd, input)) {
        std::string output;
        std::size_t at = 0;
        for (std::size_t end = 0; at < input.size() && (end = resp::endOf(input, at)) > 0; at = end) {
            const std::string_view value = std::string_view(input).substr(at, end - at);
            if (!resp::isMessage(value)) continue;
            const std::size_t asker = value.find("\r\n", value.find("\r\n$", 18) + 3) + 2; // behind the channel's name
            output += resp::command(
                {"PUBLISH", "a" + std::string(value.substr(asker, value.find(' ', asker) - asker)), text});
        }
        input.erase(0, at);
        writeAll(fd, output);
    }
}
