#include "connections/login.h"

#include "connections/authenticate.h"
#include "connections/connection_log.h"
#include "framework/fixed_text.h"

namespace {

using FailureText = FixedText<128>;

/// One step: the connection and what the step may use.
class LoginStep {
public:
    LoginStep(TPortConn& conn, TOrbAttachmentMsg& message, TUserName& userName)
        : conn_(conn), message_(message), userName_(userName)
    {
    }

    bool take()
    {
        switch (conn_.loginState) {
        case LOGIN_NEW:
            return greet();
        case LOGIN_WAIT_NAME:
            return takeName();
        case LOGIN_WAIT_PASSWORD:
            return takePassword();
        default:
            return fail(connection_log::loginBadState.id,
                        (FailureText() << connection_log::loginBadState.text << conn_.loginState
                                       << ") reached, closing connection")
                            .c_str());
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

    bool takeName()
    {
        const Input input = readLine(connection_log::loginNameTooBig);
        if (input != Input::line) return input == Input::none;
        // From the first byte, not from the first line: a name with leading blanks is the empty name (deliberate).
        putText(userName_, conn_.rxBuf.data());
        conn_.setEcho(0);
        tell("PassWord:\r\n");
        conn_.loginState = LOGIN_WAIT_PASSWORD;
        return true;
    }

    bool takePassword()
    {
        const Input input = readLine(connection_log::loginPasswordTooBig);
        if (input != Input::line) return input == Input::none;
        switch (authenticate(userName_.data(), conn_.rxBuf.data())) {
        case AUTH_ACCEPTED:
            conn_.setEcho(1);
            tell((FixedText<LOGIN_TEXT_BYTES + 32>() << "User " << userName_.data() << " connected\r\n").view());
            conn_.loginState = LOGIN_DONE;
            return true;
        case AUTH_UNKNOWN:
            return fail(connection_log::loginUserInvalid);
        case AUTH_REFUSED:
            return fail(connection_log::loginPasswordInvalid);
        default:
            return fail(connection_log::loginUnknownReason);
        }
    }

    Input readLine(const LogMessage& tooBig)
    {
        if (conn_.loginTimer.hasTimedOut()) {
            const LogMessage& timeOut = connection_log::loginTimeOut;
            (void)fail(timeOut.id, (FailureText() << timeOut.text << conn_.loginState).c_str());
            return Input::failed;
        }
        const int lines = conn_.readCmd();
        if (lines == 0) return Input::none;
        if (lines > 0 && conn_.rxLen <= static_cast<std::int32_t>(LOGIN_TEXT_BYTES)) return Input::line;
        (void)fail(lines < 0 ? connection_log::loginClosed : tooBig);
        return Input::failed;
    }

    void tell(std::string_view text)
    {
        putText(message_.text, text);
        (void)conn_.write(&message_); // the connection has logged a failure; the next read finds out that it is gone
    }

    bool fail(const LogMessage& reason) { return fail(reason.id, reason.text); }

    /// The client is not told why.
    /// @return false
    bool fail(TTraceMsg id, const char* reason)
    {
        logMgr.log(id, reason);
        tell("\r\n");
        return false;
    }

    TPortConn& conn_;
    TOrbAttachmentMsg& message_;
    TUserName& userName_;
};

} // namespace

bool loginStep(TPortConn& conn, TOrbAttachmentMsg& message, TUserName& userName)
{
    return LoginStep(conn, message, userName).take();
}
