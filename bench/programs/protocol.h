#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

/// How a client asks a router, and how the process behind it answers.
class Protocol {
public:
    virtual ~Protocol() = default;

    /// What a new connection says before it asks, and hears; on a blocking socket.
    /// @param number  of this client, from 0
    virtual void begin(int fd, int number) = 0;

    /// @return one command of this client, as it goes out
    virtual std::string request(int number) = 0;

    /// Takes whole messages off the front of `input`.
    /// @return how many answers to commands were among them
    virtual std::size_t takeAnswers(std::string& input) = 0;

    /// What the router itself answers, without a process; for the time to the first answer.
    virtual std::string probe() = 0;
};

/// @param name        ipc, xcp, dbus, mqtt or redis
/// @param text        bytes of text in a command
/// @param answerText  bytes of text in an answer
/// Ends the program when the name is none of these.
std::unique_ptr<Protocol> makeProtocol(std::string_view name, std::size_t text, std::size_t answerText);

/// The process behind a router that is reached by a stream: answers what it is asked, until the
/// router is gone.
void answerAsDbusService(int fd, std::size_t answerText);
void answerAsMqttClient(int fd, std::size_t answerText);
void answerAsRedisClient(int fd, std::size_t answerText);
