#include "framework/command_process.h"

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "tests/framework/child_process.h"
#include "tests/framework/queue_test.h"
#include "tests/support/raw_socket.h"
#include "tests/support/waiting.h"

using testing::HasSubstr;
using namespace std::string_literals;

namespace {

constexpr long OWN_ADDRESS = 1700;
constexpr std::uint32_t TAG = 0xBB010007;

/// What travelled, but for the sender and the length word.
struct Record {
    std::uint32_t kind = 0;
    std::uint32_t tag = 0;
    std::string text;

    bool operator==(const Record&) const = default;
    friend void PrintTo(const Record& record, std::ostream* out)
    {
        *out << "kind " << record.kind << ", tag " << record.tag << ", text " << testing::PrintToString(record.text);
    }
};

std::string echo(std::string_view command)
{
    return std::string(command);
}

/// Ends with what run() returns, 90 when the queue does not open.
int runProcess(const CommandProcess::AnswerTo& answerTo)
try {
    return CommandProcess(OWN_ADDRESS, "ECHO", PORT_XCP | PORT_IPC, answerTo).run();
} catch (const std::runtime_error&) {
    return 90;
}

/// With a bare socket in the place of tessd.
class CommandProcessTest : public QueueTest {
protected:
    Record receive() const
    {
        const std::string bytes = tessd_.receive();
        TOrbAttachmentMsg msg{};
        if (bytes.size() < MSG_HEADER_BYTES) return {0, 0, bytes};
        std::memcpy(&msg, bytes.data(), bytes.size());
        return {msg.kind, msg.tag, bytes.substr(MSG_HEADER_BYTES)};
    }

    void send(const RawSocket& from, std::uint32_t kind, std::uint32_t tag, const std::string& text) const
    {
        TOrbAttachmentMsg msg{};
        msg.kind = kind;
        msg.tag = tag;
        std::memcpy(msg.text, text.c_str(), text.size() + 1);
        ASSERT_TRUE(from.sendTo(pathOf(OWN_ADDRESS), &msg, MSG_HEADER_BYTES + text.size() + 1)) << text;
    }

    void confirm() const { send(tessd_, MSG_REPLY, 0, "done"); }

    void expectRegistration() const
    {
        std::uint32_t ports = PORT_XCP | PORT_IPC;
        EXPECT_EQ((Record{MSG_REGISTER, 0, std::string(reinterpret_cast<char*>(&ports), sizeof ports) + "ECHO\0"s}),
                  receive());
    }

    /// @return the text of the answer, with its NUL
    std::string ask(const std::string& command) const
    {
        send(tessd_, MSG_TEXT, TAG, command + '\n');
        const Record answer = receive();
        EXPECT_EQ((Record{MSG_REPLY, TAG, answer.text}), answer);
        return answer.text;
    }

    RawSocket tessd_{pathOf(TESS_QUEUE_ID)};
};

TEST_F(CommandProcessTest, RegistersAnswersAndUnregisters)
{
    ChildProcess process([] { return runProcess(echo); });
    expectRegistration();
    confirm();
    EXPECT_EQ(ask("HELLO"), "HELLO\r\n\r\n\0"s);
    process.signal(SIGTERM);
    EXPECT_EQ((Record{MSG_UNREGISTER, 0, ""}), receive());
    EXPECT_EQ(ask("LATE"), "LATE\r\n\r\n\0"s) << "forwarded before tessd read that";
    confirm();
    EXPECT_EQ(process.result(), 0);
    EXPECT_THAT(log_.text(), HasSubstr("250021 registered at tessd as ECHO\n"));
}

TEST_F(CommandProcessTest, TheAnswerIsWhatTheFunctionReturns)
{
    struct Row {
        const char* what;
        const char* returned;
        std::string sent;
    };
    const Row rows[] = {
        {"a word", "5", "5\r\n\r\n\0"s},
        {"nothing", "", "OK\r\n\r\n\0"s},
        {"a refusal", "?", "?\r\n\0"s},
        {"lines", "a\nb\n", "a\r\nb\r\n\r\n\0"s},
        {"a failure", "Error: it is stuck", "Error: it is stuck\r\n\r\n\0"s},
    };
    ChildProcess process([&] {
        return runProcess(
            [&](std::string_view command) { return rows[std::atoi(std::string(command).c_str())].returned; });
    });
    expectRegistration();
    for (std::size_t i = 0; i < std::size(rows); ++i)
        EXPECT_EQ(rows[i].sent, ask(std::to_string(i))) << rows[i].what;
}

TEST_F(CommandProcessTest, TheFunctionGetsTheCommandWithoutItsEnd)
{
    ChildProcess process(
        [] { return runProcess([](std::string_view command) { return "<" + std::string(command) + ">"; }); });
    expectRegistration();
    for (const std::string command : {"SETX 5", "", " two  blanks "})
        EXPECT_EQ(ask(command), "<" + command + ">\r\n\r\n\0"s);
    EXPECT_EQ(ask("A\r"), "<A>\r\n\r\n\0"s);
}

TEST_F(CommandProcessTest, WhatTheFunctionThrowsBecomesAnError)
{
    ChildProcess process([] {
        return runProcess(
            [](std::string_view command) -> std::string { throw std::runtime_error(std::string(command)); });
    });
    expectRegistration();
    EXPECT_EQ(ask("the sensor does not answer"), "Error: the sensor does not answer\r\n\r\n\0"s);
    EXPECT_EQ(ask(""), "Error: the command failed\r\n\r\n\0"s);
}

TEST_F(CommandProcessTest, ALongAnswerTravelsInSeveralRecords)
{
    const std::string line(6000, 'x');
    ChildProcess process([&] { return runProcess([&](std::string_view) { return line + "\n" + line; }); });
    expectRegistration();
    EXPECT_EQ(line + "\r\n\0"s, ask("LONG"));
    EXPECT_EQ((Record{MSG_REPLY, TAG, line + "\r\n\r\n\0"s}), receive());
}

TEST_F(CommandProcessTest, NobodyButTessdGivesItOrders)
{
    const RawSocket stranger(pathOf(2001));
    ChildProcess process([] { return runProcess(echo); });
    expectRegistration();
    send(stranger, MSG_TEXT, TAG, "STRANGE\n");
    send(stranger, MSG_REPLY, 0xFFFFFFFF, "refused");
    EXPECT_EQ(ask("HELLO"), "HELLO\r\n\r\n\0"s);
}

TEST_F(CommandProcessTest, ARefusalEndsIt)
{
    ChildProcess process([] { return runProcess(echo); });
    expectRegistration();
    send(tessd_, MSG_REPLY, 0xFFFFFFFF, "no room");
    EXPECT_EQ(process.result(), 1);
    EXPECT_THAT(log_.text(), HasSubstr("250023 tessd refused: no room\n"));
}

TEST_F(CommandProcessTest, AsksAgainWhileTessdIsNotThere)
{
    ASSERT_EQ(::unlink(pathOf(TESS_QUEUE_ID).c_str()), 0);
    ChildProcess process([] { return runProcess(echo); });
    ASSERT_TRUE(
        waitUntil([&] { return log_.text().ends_with("250022 tessd is not there, asking again every second\n"); }));
    const RawSocket late(pathOf(TESS_QUEUE_ID));
    EXPECT_THAT(late.receive(), HasSubstr("ECHO"));
}

TEST_F(CommandProcessTest, TellsOnceThatItIsUp)
{
    const RawSocket manager(dir_ / "manager");
    ::setenv("NOTIFY_SOCKET", (dir_ / "manager").c_str(), 1);
    ChildProcess process([] { return runProcess(echo); });
    ::unsetenv("NOTIFY_SOCKET");
    expectRegistration();
    EXPECT_EQ(ask("HELLO"), "HELLO\r\n\r\n\0"s);
    confirm();
    EXPECT_EQ(manager.receive(), "READY=1");
    confirm();
    EXPECT_EQ(ask("HELLO"), "HELLO\r\n\r\n\0"s);
    EXPECT_THAT(manager.receiveNow(), HasSubstr("nothing"));
}

TEST_F(CommandProcessTest, SignalsAreAsTheyWereAfterwards)
{
    ChildProcess process([] {
        const auto handlerOf = [](int number) {
            struct sigaction now {};
            ::sigaction(number, nullptr, &now);
            return now.sa_handler;
        };
        std::signal(SIGTERM, SIG_IGN);
        std::signal(SIGALRM, SIG_IGN);
        const int status = runProcess(echo);
        const bool same =
            handlerOf(SIGTERM) == SIG_IGN && handlerOf(SIGINT) == SIG_DFL && handlerOf(SIGALRM) == SIG_IGN;
        return same && ::alarm(0) == 0 ? status : 91;
    });
    expectRegistration();
    confirm();
    EXPECT_EQ(ask("HELLO"), "HELLO\r\n\r\n\0"s);
    process.signal(SIGINT);
    EXPECT_EQ((Record{MSG_UNREGISTER, 0, ""}), receive());
    confirm();
    EXPECT_EQ(process.result(), 0);
}

TEST_F(CommandProcessTest, AnAddressThatIsTakenIsAnException)
{
    const RawSocket owner(pathOf(OWN_ADDRESS));
    EXPECT_THROW(CommandProcess(OWN_ADDRESS, "ECHO", PORTS_ALL, echo), std::runtime_error);
}

} // namespace
