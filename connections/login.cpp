#include "connections/login.h"

#include <cstring>
#include <type_traits>

#include "connections/authenticate.h"
#include "connections/connection_log.h"
#include "connections/witness.h"
#include "framework/fixed_text.h"

namespace {

/// One step: the connection and what the step may use.
class LoginStep {
public:
    LoginStep(TPortConn& conn, TOrbAttachmentMsg& message, UserName& userName)
        : conn_(conn), message_(message), userName_(userName)
    {
    }

    bool take()
    {
        if (conn_.settling && !settled()) return true;
        switch (conn_.login.owes) {
        case LoginOwes::prompt:
            return prompt();
        case LoginOwes::verdict:
            return conn_.login.check->isOver() ? judge(conn_.login.check->result()) : stillInTime();
        case LoginOwes::welcome:
            return welcome();
        case LoginOwes::nothing:
            break;
        }
        switch (conn_.loginState) {
        case LOGIN_NEW:
            return greet();
        case LOGIN_WAIT_NAME:
            return takeName();
        case LOGIN_WAIT_PASSWORD:
            return takePassword();
        default:
            return fail(connection_log::loginBadState, conn_.loginState);
        }
    }

private:
    enum class Input { none, line, failed };

    bool greet()
    {
        tell("\r\nMarvo Resident Telnet Server...\r\n");
        tell("UserName:\r\n");
        conn_.loginState = LOGIN_WAIT_NAME;
        return true;
    }

    /// @return true when the exchange of options that setEcho() has begun is over
    bool settled()
    {
        // That the client has gone, the next readCmd() will find out too.
        (void)conn_.readCmd();
        return !conn_.settling;
    }

    bool takeName()
    {
        const Input input = readLine(connection_log::loginNameTooBig);
        if (input != Input::line) return input == Input::none;
        // From the first byte, not from the first line: a name with leading blanks is the empty
        // name (deliberate).
        putText(userName_, conn_.rxBuf.data());
        conn_.loginState = LOGIN_WAIT_PASSWORD;
        conn_.login.owes = LoginOwes::prompt;
        conn_.setEcho(0);
        return conn_.settling || prompt();
    }

    bool prompt()
    {
        conn_.login.owes = LoginOwes::nothing;
        tell("PassWord:\r\n");
        return true;
    }

    bool takePassword()
    {
        const Input input = readLine(connection_log::loginPasswordTooBig);
        if (input != Input::line) return input == Input::none;
        char* const password = conn_.rxBuf.data();
        if (isSuperUser(userName_.data())) return judge(authenticate(userName_.data(), password));
        conn_.login.check = PasswordCheck::start(userName_.data(), password);
        ::explicit_bzero(password, std::strlen(password));
        if (!conn_.login.check) return fail(connection_log::loginUnknownReason);
        conn_.login.owes = LoginOwes::verdict;
        conn_.wantsInput = false; // until the verdict is there
        return true;
    }

    bool judge(int verdict)
    {
        conn_.wantsInput = true;
        if (verdict != AUTH_ACCEPTED) witness::loginRefused(conn_, verdict == AUTH_UNKNOWN ? "" : typedName());
        switch (verdict) {
        case AUTH_ACCEPTED:
            conn_.login.owes = LoginOwes::welcome;
            conn_.setEcho(1);
            return conn_.settling || welcome();
        case AUTH_UNKNOWN:
            return fail(connection_log::loginUserInvalid);
        case AUTH_REFUSED:
            return fail(connection_log::loginPasswordInvalid);
        default:
            return fail(connection_log::loginUnknownReason);
        }
    }

    bool welcome()
    {
        FixedText<LOGIN_TEXT_BYTES + 32> text;
        text << "User " << conn_.login.check->userName() << " connected\r\n";
        conn_.user << conn_.login.check->userName();
        witness::login(conn_);
        conn_.login = {};
        tell(text.view());
        conn_.loginState = LOGIN_DONE;
        return true;
    }

    /// The name that the password was for.
    const char* typedName() const { return conn_.login.check ? conn_.login.check->userName() : userName_.data(); }

    /// Ends the dialogue when its 60 seconds are over, whatever it waits for.
    /// @return false: they are over, and the login has failed
    bool stillInTime()
    {
        if (!conn_.loginTimer.hasTimedOut()) return true;
        return fail(connection_log::loginTimeOut, conn_.loginState);
    }

    Input readLine(const LogMessage<>& tooBig)
    {
        if (!stillInTime()) return Input::failed;
        const int lines = conn_.readCmd();
        if (lines == 0) return Input::none;
        if (lines > 0 && conn_.rxLen <= static_cast<std::int32_t>(LOGIN_TEXT_BYTES)) return Input::line;
        (void)fail(lines < 0 ? connection_log::loginClosed : tooBig);
        return Input::failed;
    }

    void tell(std::string_view text)
    {
        putText(message_.text, text);
        // The connection has logged a failure; that the client has gone, the next read finds out.
        (void)conn_.write(&message_);
    }

    /// The client is not told why.
    /// @return false
    template <class... Values>
    bool fail(const LogMessage<Values...>& reason, const std::type_identity_t<Values>&... values)
    {
        logMessage(reason, values...);
        tell("\r\n");
        return false;
    }

    TPortConn& conn_;
    TOrbAttachmentMsg& message_;
    UserName& userName_;
};

} // namespace

bool loginStep(TPortConn& conn, TOrbAttachmentMsg& message, UserName& userName)
{
    const bool goesOn = LoginStep(conn, message, userName).take();
    if (conn.due == AT_ONCE) conn.due = conn.end(); // this step was the look that was due
    return goesOn;
}
