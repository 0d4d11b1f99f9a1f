#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <sys/select.h>

#include "common/instant.h"
#include "common/wait_set.h"
#include "connections/cmd_entry.h"
#include "connections/cmd_progress.h"
#include "connections/login_pause.h"
#include "framework/fixed_text.h"
#include "framework/hr_time_out.h"
#include "framework/orb_attachment_msg.h"

/// States of the login dialogue of a connection.
enum LoginState : std::int32_t {
    LOGIN_NEW = 0,           ///< greeting not yet sent
    LOGIN_WAIT_NAME = 1,     ///< waiting for the user name
    LOGIN_WAIT_PASSWORD = 2, ///< waiting for the password
    LOGIN_DONE = 3,          ///< lines go to the interpreter
};

class LineOutput;
class LocalConn;

/// One live conversation on a command port.
/// Owns: by subclass, see ~TPortConn(). The daemon's connection list owns the connection itself.
/// Threads: everything on the service thread or with the daemon's connection lock held, except
/// muteExpired(), which any thread may call.
class TPortConn {
public:
    /// Most bytes that one read takes. A line has a byte at least, so a read yields no more lines
    /// than that.
    static constexpr std::int32_t RX_BYTES = 1024;
    static constexpr timeval LOGIN_TIME{60, 0};
    static constexpr timeval IDLE_TIME{420, 0};
    static constexpr std::chrono::seconds REST_TIME{1};

    /// @param portType  type bit of the port that makes the connection
    /// @param id        connection ID, its lower 16 bits zero
    TPortConn(std::uint32_t portType, std::uint32_t id);
    TPortConn(const TPortConn&) = delete;
    TPortConn& operator=(const TPortConn&) = delete;

    /// Closes the descriptor where it is the connection's own (socket connections), not where it is
    /// the port's (COM2).
    virtual ~TPortConn() = default;

    /// Takes in what has arrived and cuts it into command lines. Never waits for input.
    /// @return number of command lines now in `cmds`, valid until the next call; 0 nothing to do:
    ///         no data, an incomplete line, a read error, or input thrown away; -1 the peer has
    ///         closed, remove the connection
    virtual int readCmd() = 0;

    /// Sends the NUL-terminated text of a record; does not wait for the peer.
    /// @param msg  stays the caller's; XCP rewrites its tag and len words
    /// @return 0 sent, 1 failed
    virtual int write(TOrbAttachmentMsg* msg) = 0;

    /// @return nonzero when the connection has been idle for too long and is to be removed
    virtual int hasTimedOut() = 0;

    /// Switches the echo of what the peer types.
    virtual void setEcho(int on) = 0;

    /// @return 1 for the serial line, else 0
    virtual int isSerialLine() = 0;

    /// Throws away what arrives in the next 2 seconds (serial line only; elsewhere does nothing).
    /// Threads: service thread, or with the connection lock held: it sets `due`.
    /// @return 0
    virtual int startMute() { return 0; }

    /// Unused: nothing calls it, but the operations behind it keep their places in the table of
    /// virtual functions.
    /// @return 0
    virtual int reservedHook() { return 0; }

    /// @return nonzero when input is accepted, 0 within the 2 seconds after startMute(). Threads:
    ///         any.
    virtual int muteExpired() { return 1; }

    /// @return type bit of the port that made the connection
    virtual std::uint32_t getPortId() = 0;

    /// @return when the login dialogue, or after it the idle time, is over
    Instant end() const;

    /// @return when its last lines came, or on telnet the last text was written to it
    Instant lastActive() const { return lastActive_; }

    /// @return true while something of it waits for a process, a program or a verdict: it is not
    ///         read
    bool isHeld() const { return progress.waits() || login.owes == LoginOwes::verdict; }

    /// Adds what the service loop waits for on its behalf.
    void addTo(WaitSet& waits);

    /// @return true when it is to be looked at; not to be asked while one of its lines waits
    bool isDue(const WaitSet& waits) const;

    std::int32_t fd = -1; ///< socket or serial line; set by the port right after construction
    std::uint32_t connId;
    std::uint32_t portId;
    fd_set readSet;                         ///< of those readers that poll with select(2); bits are only ever set
    std::int32_t rxLen = 0;                 ///< bytes taken in by the last read
    std::array<char, RX_BYTES + 1> rxBuf{}; ///< received bytes, with room for a NUL; lines are cut in place
    std::array<CmdEntry, RX_BYTES> cmds{};  ///< lines of the last readCmd()
    TOrbHRTimeOut loginTimer{LOGIN_TIME};   ///< bounds the whole login dialogue
    /// Armed afresh when a read yields lines; on telnet also by a write, and when negotiation ends.
    TOrbHRTimeOut idleTimer{IDLE_TIME};
    std::int32_t loginState = LOGIN_NEW;
    std::int32_t rxBufSize = RX_BYTES;

    // What the service loop waits for on behalf of the connection. Every readCmd() sets both anew.
    bool wantsInput = true; ///< false: the descriptor would wake the loop without a reason
    Instant due = AT_ONCE;  ///< when it is looked at although nothing has arrived: a new one at once

    /// An exchange of options is under way: readCmd() goes on with it and yields no line until it
    /// is over.
    bool settling = false;

    LoginPause login;             ///< what the login dialogue waits for, besides the peer's next line
    CmdProgress progress;         ///< of the lines of the last read
    LineOutput* output = nullptr; ///< what is on its way out of a serial line, the connection's own; else null
    LocalConn* local = nullptr;   ///< itself, when it is one; else null

    const Instant begin = instantNow();
    FixedText<257> user; ///< who has logged in; empty: nobody

protected:
    /// Arms idleTimer afresh, and notes the activity.
    void keepAlive();

    void noteActivity() { lastActive_ = instantNow(); }

    /// Has the service loop leave the descriptor alone for a second, because it is readable
    /// although there is nothing to do.
    void rest();

    /// Closes `fd`, if it is greater than 0, so that the peer sees it at once.
    void closeSocket() const;

    /// Length of the text of a record, which must leave room for its NUL inside the record.
    static std::size_t textLength(const TOrbAttachmentMsg& msg);

private:
    Instant loginEnd_; ///< when loginTimer is over
    Instant idleEnd_;  ///< when idleTimer is over
    Instant lastActive_ = begin;
};
