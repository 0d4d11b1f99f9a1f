#include "connections/login.h"

#include <cstring>
#include <deque>
#include <gmock/gmock.h>
#include <string>
#include <vector>

#include "connections/line_cutter.h"
#include "framework/fixed_text.h"
#include "tests/support/log_capture.h"
#include "tests/support/no_threads.h"
#include "tests/support/passwd_file.h"
#include "tests/support/private_mounts.h"
#include "tests/support/readable.h"
#include "tests/support/waiting.h"

using namespace std::string_literals;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr int FAILED_LOGIN = 251526;

/// Yields the bytes that a test puts in, as a telnet connection does, and notes what the login does
/// with it.
class LoginConn : public TPortConn {
public:
    LoginConn() : TPortConn(2, 0xAA01'0000) {}

    int readCmd() override
    {
        done.emplace_back("read");
        rxLen = 0;
        if (settling) {
            settling = --exchanges > 0;
            due = settling ? NEVER : AT_ONCE;
            return closed ? -1 : 0;
        }
        if (closed && input.empty()) return -1;
        if (input.empty()) return 0;
        const std::string bytes = input.front();
        input.pop_front();
        std::memcpy(rxBuf.data(), bytes.data(), bytes.size());
        rxBuf[bytes.size()] = '\0';
        rxLen = static_cast<std::int32_t>(bytes.size());
        return cutLines(std::span(rxBuf).first(bytes.size()), false, cmds);
    }
    int write(TOrbAttachmentMsg* msg) override
    {
        done.push_back("write " + readable(msg->text));
        return writeResult;
    }
    int hasTimedOut() override { return 0; }
    void setEcho(int on) override
    {
        done.push_back("echo " + std::to_string(on));
        settling = exchanges > 0;
    }
    int isSerialLine() override { return 0; }
    std::uint32_t getPortId() override { return portId; }

    std::deque<std::string> input; ///< one entry a read
    bool closed = false;           ///< behind the input
    int writeResult = 0;
    int exchanges = 0;             ///< reads that the next switch of the echo takes
    std::vector<std::string> done; ///< in order
};

class Login : public testing::Test {
protected:
    void SetUp() override
    {
        if (!privateMountsProblem().empty()) GTEST_SKIP() << privateMountsProblem();
        accounts = std::make_unique<PasswdFile>(std::string(ROOT) + ALICE + BOB + "shadowed:x:1:1::/:/bin/sh\n" +
                                                std::string(254, 'n') + std::string(ALICE).substr(5));
    }

    bool step() { return loginStep(conn, message, userName); }

    /// What the step does.
    std::vector<std::string> doneInStep(bool goesOn)
    {
        conn.done.clear();
        EXPECT_EQ(step(), goesOn);
        return conn.done;
    }

    /// The end of the check is waited for, and taken into the next step.
    std::vector<std::string> doneByVerdict(bool goesOn)
    {
        EXPECT_EQ(conn.login.owes, LoginOwes::verdict);
        if (conn.login.check == nullptr) return {"no check"};
        EXPECT_TRUE(waitUntil([this] { return conn.login.check->isOver(); }));
        return doneInStep(goesOn);
    }

    /// As with a check that takes very long.
    void beginEndlessCheck(const char* user = "alice")
    {
        goTo(LOGIN_WAIT_PASSWORD, user);
        conn.login = {LoginOwes::verdict, std::make_shared<PasswordCheck>(user, "secret")};
        conn.wantsInput = false;
    }

    void goTo(std::int32_t state, const char* user = "alice")
    {
        conn.loginState = state;
        conn.login = {};
        putText(userName, user);
    }

    std::unique_ptr<PasswdFile> accounts;
    LogCapture log;
    LoginConn conn;
    TOrbAttachmentMsg message{};
    UserName userName{};
};

} // namespace

TEST_F(Login, GreetsAsksAndLetsAUserIn)
{
    message.kind = 101;
    EXPECT_THAT(doneInStep(true),
                ElementsAre("write \\r\\nMarvo Resident Telnet Server...\\r\\n", "write UserName:\\r\\n"));
    EXPECT_EQ(conn.loginState, 1);

    EXPECT_THAT(doneInStep(true), ElementsAre("read")) << "nothing has been typed";
    EXPECT_EQ(conn.loginState, 1);

    conn.input = {"alice\r\n"};
    EXPECT_THAT(doneInStep(true), ElementsAre("read", "echo 0", "write PassWord:\\r\\n"));
    EXPECT_EQ(conn.loginState, 2);
    EXPECT_STREQ(userName.data(), "alice");

    EXPECT_THAT(doneInStep(true), ElementsAre("read")) << "nothing has been typed";
    EXPECT_EQ(conn.loginState, 2);

    conn.input = {"secret\r\n"};
    EXPECT_THAT(doneInStep(true), ElementsAre("read"));
    EXPECT_THAT(doneByVerdict(true), ElementsAre("echo 1", "write User alice connected\\r\\n"));
    EXPECT_EQ(conn.loginState, 3);
    EXPECT_THAT(log.lines(), IsEmpty());
    EXPECT_EQ(message.kind, 101U);
    EXPECT_EQ(conn.login.owes, LoginOwes::nothing);
    EXPECT_EQ(conn.login.check, nullptr) << "the name and the password are not kept";
    EXPECT_TRUE(conn.wantsInput);
    EXPECT_EQ(std::string(conn.rxBuf.data(), 6), "\0\0\0\0\0\0"s) << "the password is wiped";
}

TEST_F(Login, LetsUsersInWithEachKindOfHash)
{
    goTo(2, "bob");
    conn.input = {"geheim\n"};
    EXPECT_THAT(doneInStep(true), ElementsAre("read"));
    EXPECT_THAT(doneByVerdict(true), ElementsAre("echo 1", "write User bob connected\\r\\n"));
}

TEST_F(Login, RefusesWithoutTellingTheClientWhy)
{
    struct Row {
        const char* behaviour;
        const char* user;
        const char* password;
        const char* reason;
    };
    const Row rows[] = {
        {"a wrong password", "alice", "wrong\r\n", "Failed login, password invalid "},
        {"the super-user with the right password", "root", "toor\r\n", "Failed login, password invalid "},
        {"an account whose hash is shadowed", "shadowed", "x\r\n", "Failed login, password invalid "},
        {"a user who does not exist", "carol", "secret\r\n", "Failed login, username invalid "},
        {"the empty name", "", "secret\r\n", "Failed login, username invalid "},
        {"a name made of format characters", "%s%n", "secret\r\n", "Failed login, username invalid "},
        {"a password with leading blanks is the empty one", "alice", "  secret\r\n", "Failed login, password invalid "},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.behaviour);
        const LogCapture ownLog;
        goTo(2, row.user);
        conn.input = {row.password};
        if (row.user == std::string("root")) { // nothing is to be computed
            EXPECT_THAT(doneInStep(false), ElementsAre("read", "write \\r\\n"));
        } else {
            EXPECT_THAT(doneInStep(true), ElementsAre("read"));
            EXPECT_THAT(doneByVerdict(false), ElementsAre("write \\r\\n"));
        }
        EXPECT_THAT(ownLog.lines(), ElementsAre(LogLine{FAILED_LOGIN, row.reason}));
        EXPECT_EQ(conn.loginState, 2);
    }
}

TEST_F(Login, EndsWhenTheClientCloses)
{
    conn.closed = true;
    for (const std::int32_t state : {1, 2}) {
        const LogCapture ownLog;
        goTo(state);
        EXPECT_THAT(doneInStep(false), ElementsAre("read", "write \\r\\n"));
        EXPECT_THAT(ownLog.lines(),
                    ElementsAre(LogLine{FAILED_LOGIN, "Received connection close request from client during login"}));
    }
}

TEST_F(Login, EndsWhenTheWholeDialogueTakesTooLong)
{
    conn.loginTimer.setTimeOut({0, 0});
    EXPECT_TRUE(step()) << "the greeting comes all the same";
    for (const std::int32_t state : {1, 2}) {
        const LogCapture ownLog;
        goTo(state);
        conn.input = {"alice\r\n"};
        EXPECT_THAT(doneInStep(false), ElementsAre("write \\r\\n")) << "what was typed too late is not read";
        EXPECT_THAT(ownLog.lines(), ElementsAre(LogLine{FAILED_LOGIN, "Timeout during connection login, state = " +
                                                                          std::to_string(state)}));
    }
}

TEST_F(Login, DoesNotArmItsTimerAgain)
{
    conn.loginTimer.setTimeOut({0, 300'000});
    step();
    conn.input = {"alice\r\n"};
    step();
    ASSERT_TRUE(waitUntil([&] { return conn.loginTimer.hasTimedOut(); }));
    conn.input = {"secret\r\n"};
    EXPECT_FALSE(step());
}

TEST_F(Login, TakesANameOrPasswordOf256BytesWithItsLineEndAndNoLongerOne)
{
    struct Row {
        std::int32_t state;
        std::string bytes;
        bool tooBig;
    };
    const Row rows[] = {
        {1, std::string(254, 'n') + "\r\n", false}, {1, std::string(255, 'n') + "\n", false},
        {1, std::string(255, 'n') + "\r\n", true},  {1, "alice\r\n" + std::string(250, 'n'), true},
        {1, std::string(1024, '\n'), false},        {2, std::string(255, 'p') + "\r\n", true},
        {2, std::string(1023, 'p') + "\n", true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::Message() << "state " << row.state << ", " << row.bytes.size() << " bytes");
        const LogCapture ownLog;
        goTo(row.state);
        conn.input = {row.bytes};
        EXPECT_EQ(step(), !row.tooBig);
        if (!row.tooBig)
            EXPECT_THAT(ownLog.lines(), IsEmpty());
        else
            EXPECT_THAT(ownLog.lines(), ElementsAre(LogLine{FAILED_LOGIN, row.state == 1 ? "Login name too big"
                                                                                         : "Login password too big"}));
    }
}

TEST_F(Login, NamesAUserOfTheLongestNameInFull)
{
    const std::string name(254, 'n');
    goTo(1);
    conn.input = {name + "\r\n"};
    EXPECT_TRUE(step());
    conn.input = {"secret\r\n"};
    EXPECT_THAT(doneInStep(true), ElementsAre("read"));
    EXPECT_THAT(doneByVerdict(true), ElementsAre("echo 1", "write User " + name + " connected\\r\\n"));
}

TEST_F(Login, HoldsANameOf256Characters)
{
    goTo(1);
    conn.input = {std::string(256, 'n')}; // no reader yields it without its line end, but the buffer is made for it
    EXPECT_TRUE(step());
    EXPECT_EQ(std::string(userName.data()), std::string(256, 'n'));
}

TEST_F(Login, TakesANameFromTheFirstByteUpToItsEnd)
{
    struct Row {
        const char* behaviour;
        std::string bytes;
        const char* name;
    };
    const Row rows[] = {
        {"one line", "alice\r\n", "alice"},
        {"leading blanks make it the empty name", "  alice\r\n", ""},
        {"and so does an empty line in front", "\r\nalice\r\n", ""},
        {"trailing blanks stay", "alice  \r\n", "alice  "},
        {"what comes with it is dropped", "alice\r\nsecret\r\n*\r\n", "alice"},
        {"a NUL ends it", "ali\0ce\r\n"s, "ali"},
        {"CR NUL", "alice\r\0"s, "alice"},
        {"8-bit and control characters", "\x01\xE4%s\x7F\n", "\x01\xE4%s\x7F"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.behaviour);
        goTo(1, "somebody before");
        conn.input = {row.bytes};
        EXPECT_THAT(doneInStep(true), ElementsAre("read", "echo 0", "write PassWord:\\r\\n"));
        EXPECT_STREQ(userName.data(), row.name);
    }
}

TEST_F(Login, ForgetsALongerNameBefore)
{
    goTo(1, "a name that is much longer than the next");
    conn.input = {"bob\r\n"};
    step();
    conn.input = {"geheim\r\n"};
    EXPECT_THAT(doneInStep(true), ElementsAre("read"));
    EXPECT_THAT(doneByVerdict(true), ElementsAre("echo 1", "write User bob connected\\r\\n"));
}

TEST_F(Login, LetsTwoClientsOverwriteEachOthersName)
{
    LoginConn second;
    goTo(1);
    second.loginState = 1;
    conn.input = {"alice\r\n"};
    second.input = {"bob\r\n"};
    EXPECT_TRUE(loginStep(conn, message, userName));
    EXPECT_TRUE(loginStep(second, message, userName));
    conn.input = {"geheim\r\n"};
    EXPECT_THAT(doneInStep(true), ElementsAre("read"));
    EXPECT_THAT(doneByVerdict(true), ElementsAre("echo 1", "write User bob connected\\r\\n"));
}

TEST_F(Login, AsksOnlyAfterALineThatHoldsSomething)
{
    goTo(1);
    conn.input = {"\r\n", " \r\n"};
    EXPECT_THAT(doneInStep(true), ElementsAre("read"));
    EXPECT_THAT(doneInStep(true), ElementsAre("read"));
    EXPECT_EQ(conn.loginState, 1);
}

TEST_F(Login, EndsInAStateThatDoesNotExist)
{
    for (const std::int32_t state : {-1, 3, 4, 99, -2147483647 - 1}) {
        const LogCapture ownLog;
        goTo(state);
        EXPECT_THAT(doneInStep(false), ElementsAre("write \\r\\n"));
        EXPECT_THAT(ownLog.lines(), ElementsAre(LogLine{FAILED_LOGIN, "Invalid login state (" + std::to_string(state) +
                                                                          ") reached, closing connection"}));
    }
}

TEST_F(Login, GoesOnWhenWhatItTellsCannotBeWritten)
{
    conn.writeResult = 1;
    EXPECT_TRUE(step());
    conn.input = {"alice\r\n"};
    EXPECT_TRUE(step());
    conn.input = {"secret\r\n"};
    EXPECT_TRUE(step());
    EXPECT_THAT(doneByVerdict(true), ElementsAre("echo 1", "write User alice connected\\r\\n"));
    EXPECT_EQ(conn.loginState, 3);
}

// --- while something else than a line is waited for

TEST_F(Login, WaitsForTheVerdictWithoutReading)
{
    beginEndlessCheck();
    conn.input = {"*\r\n"};
    for (int i = 0; i < 3; ++i) {
        EXPECT_THAT(doneInStep(true), IsEmpty());
        EXPECT_EQ(conn.loginState, 2);
        EXPECT_FALSE(conn.wantsInput);
    }
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Login, LeavesTheDescriptorAloneWhileThePasswordIsChecked)
{
    goTo(2);
    conn.input = {"secret\r\n"};
    EXPECT_TRUE(step());
    EXPECT_FALSE(conn.wantsInput);
    EXPECT_THAT(doneByVerdict(true), ElementsAre("echo 1", "write User alice connected\\r\\n"));
    EXPECT_TRUE(conn.wantsInput);
}

TEST_F(Login, WipesThePasswordThatWasReadAsSoonAsItIsChecked)
{
    for (const char* const user : {"alice", "carol"}) {
        goTo(2, user);
        conn.input = {"secret\r\n"};
        EXPECT_TRUE(step());
        EXPECT_EQ(std::string(conn.rxBuf.data(), 6), "\0\0\0\0\0\0"s) << user;
        EXPECT_FALSE(doneByVerdict(user == "alice"s).empty());
    }
}

TEST_F(Login, EndsInTimeWhileThePasswordIsChecked)
{
    beginEndlessCheck();
    conn.loginTimer.setTimeOut({0, 0});
    EXPECT_THAT(doneInStep(false), ElementsAre("write \\r\\n"));
    EXPECT_THAT(log.lines(), ElementsAre(LogLine{FAILED_LOGIN, "Timeout during connection login, state = 2"}));
}

TEST_F(Login, TakesAVerdictThatIsThereAlthoughTimeIsOver)
{
    goTo(2);
    conn.input = {"secret\r\n"};
    EXPECT_TRUE(step());
    conn.loginTimer.setTimeOut({0, 0});
    EXPECT_THAT(doneByVerdict(true), ElementsAre("echo 1", "write User alice connected\\r\\n"));
}

TEST_F(Login, FailsForNoReasonOfTheClientsWithoutAThread)
{
    const NoThreads none;
    ASSERT_TRUE(none.isSet());
    for (const char* const user : {"alice", "carol"}) {
        const LogCapture ownLog;
        goTo(2, user);
        conn.input = {"secret\r\n"};
        EXPECT_THAT(doneInStep(false), ElementsAre("read", "write \\r\\n"));
        EXPECT_THAT(ownLog.lines(), ElementsAre(LogLine{FAILED_LOGIN, "Failed login, unknown reason "}));
        EXPECT_EQ(std::string(conn.rxBuf.data(), 6), "\0\0\0\0\0\0"s);
    }
    goTo(2, "root");
    conn.input = {"toor\r\n"};
    EXPECT_THAT(doneInStep(false), ElementsAre("read", "write \\r\\n"));
    EXPECT_THAT(log.lines(), ElementsAre(LogLine{FAILED_LOGIN, "Failed login, password invalid "})) << "needs none";
}

TEST_F(Login, NamesTheUserWhoseVerdictItIs)
{
    goTo(2);
    conn.input = {"secret\r\n"};
    EXPECT_TRUE(step());
    putText(userName, "somebody else meanwhile");
    EXPECT_THAT(doneByVerdict(true), ElementsAre("echo 1", "write User alice connected\\r\\n"));
}

TEST_F(Login, AsksForThePasswordOnceTheEchoIsOff)
{
    goTo(1);
    conn.input = {"alice\r\n"};
    conn.exchanges = 3;
    EXPECT_THAT(doneInStep(true), ElementsAre("read", "echo 0"));
    EXPECT_EQ(conn.loginState, 2);
    EXPECT_THAT(doneInStep(true), ElementsAre("read"));
    EXPECT_THAT(doneInStep(true), ElementsAre("read"));
    EXPECT_THAT(doneInStep(true), ElementsAre("read", "write PassWord:\\r\\n"));
    EXPECT_THAT(doneInStep(true), ElementsAre("read")) << "asked once";
}

TEST_F(Login, WelcomesOnceTheEchoIsOn)
{
    goTo(2);
    conn.input = {"secret\r\n"};
    conn.exchanges = 2;
    EXPECT_TRUE(step());
    EXPECT_THAT(doneByVerdict(true), ElementsAre("echo 1"));
    EXPECT_EQ(conn.loginState, 2);
    putText(userName, "somebody else meanwhile");
    EXPECT_THAT(doneInStep(true), ElementsAre("read"));
    EXPECT_EQ(conn.loginState, 2);
    EXPECT_THAT(doneInStep(true), ElementsAre("read", "write User alice connected\\r\\n"));
    EXPECT_EQ(conn.loginState, 3);
    EXPECT_EQ(conn.login.check, nullptr);
}

TEST_F(Login, TellsWhatItOwesAlthoughTimeIsOverMeanwhile)
{
    goTo(1);
    conn.input = {"alice\r\n"};
    conn.exchanges = 1;
    EXPECT_TRUE(step());
    conn.loginTimer.setTimeOut({0, 0});
    EXPECT_THAT(doneInStep(true), ElementsAre("read", "write PassWord:\\r\\n")) << "as if nobody had waited";
    EXPECT_THAT(doneInStep(false), ElementsAre("write \\r\\n"));
    EXPECT_THAT(log.lines(), ElementsAre(LogLine{FAILED_LOGIN, "Timeout during connection login, state = 2"}));
}

TEST_F(Login, FindsOutAfterAnExchangeThatTheClientHasClosed)
{
    goTo(1);
    conn.input = {"alice\r\n"};
    conn.exchanges = 1;
    EXPECT_TRUE(step());
    conn.closed = true;
    EXPECT_THAT(doneInStep(true), ElementsAre("read", "write PassWord:\\r\\n"));
    EXPECT_THAT(doneInStep(false), ElementsAre("read", "write \\r\\n"));
    EXPECT_THAT(log.lines(),
                ElementsAre(LogLine{FAILED_LOGIN, "Received connection close request from client during login"}));
}

TEST_F(Login, LeavesNothingDueAtOnceBehind)
{
    conn.due = AT_ONCE;
    EXPECT_TRUE(step());
    EXPECT_EQ(conn.due, conn.end()) << "a busy loop otherwise";
    conn.due = AT_ONCE;
    goTo(1);
    conn.input = {"alice\r\n"};
    conn.exchanges = 1;
    EXPECT_TRUE(step());
    conn.due = NEVER;
    EXPECT_TRUE(step()); // the exchange ends, which makes it due at once
    EXPECT_EQ(conn.due, conn.end());
    beginEndlessCheck();
    conn.due = AT_ONCE;
    EXPECT_TRUE(step());
    EXPECT_EQ(conn.due, conn.end());
}

TEST_F(Login, MayEndBeforeTheCheckDoes)
{
    std::weak_ptr<PasswordCheck> check;
    {
        LoginConn gone;
        gone.loginState = LOGIN_WAIT_PASSWORD;
        putText(userName, "alice");
        gone.input = {"secret\r\n"};
        EXPECT_TRUE(loginStep(gone, message, userName));
        check = gone.login.check;
    }
    EXPECT_TRUE(waitUntil([&] { return check.expired(); })) << "its thread lets go of it at its end";
}
