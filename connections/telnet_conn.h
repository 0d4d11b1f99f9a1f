#pragma once

#include <cstdint>
#include <netinet/in.h>
#include <span>
#include <sys/types.h>

#include "connections/port_conn.h"
#include "connections/telnet_protocol.h"

/// A telnet client (RFC 854). One that speaks LINEMODE (RFC 1184) edits lines and is told with the ECHO option (RFC 857) when
/// not to show them; any other is a plain byte stream that gets its bytes echoed.
/// Owns: its descriptor.
class TTelnetConn : public TPortConn {
public:
    TTelnetConn(std::uint32_t portType, std::uint32_t id);
    ~TTelnetConn() override;

    /// Finds out what the client speaks. Sends nothing until the client has sent a telnet command. Waits: a second for a
    /// silent client, 5 seconds for the whole exchange, and 5 more for its LINEMODE part, with one that never comes to an
    /// end.
    /// @return 0 done; 1 socket error, drop the connection
    int negotiateOptions();

    /// As TPortConn::readCmd(). A line without an end stays in the socket; where the connection echoes, what has come of it
    /// is echoed once. Urgent data is thrown away. Telnet commands are not taken out of lines.
    int readCmd() override;
    int write(TOrbAttachmentMsg* msg) override;
    int hasTimedOut() override { return idleTimer.hasTimedOut() ? 1 : 0; }
    /// LINEMODE: offers or withdraws ECHO and waits for the client's answer, for up to a second of silence or 2 in all.
    void setEcho(int on) override;
    int isSerialLine() override { return 0; }
    std::uint32_t getPortId() override { return portId; }

    /// Sends a text; as write(), without a record and without logging.
    /// @return 0 sent, 1 failed
    int writeText(const char* text);

    std::uint8_t lineMode = 0;   ///< the client speaks LINEMODE
    std::uint8_t serverEcho = 0; ///< received bytes are echoed
    std::int32_t echoPos = 0;    ///< how many bytes of the line that stays in the socket have been echoed
    sockaddr_in peerAddr{};      ///< set by the port

private:
    enum class Read : int { command = 0, socketError = 1, timeOut = 2, data = 3 };

    Read readTelnetCmd(const TOrbHRTimeOut& bound);
    ssize_t peek(char* buffer);
    std::span<const telnet::Byte> command() const;
    void processOptStat();
    int processSubNegLm();
    void startPlainMode();
    bool sendBytes(std::span<const telnet::Byte> bytes);
    int sendText(const char* text, std::size_t length);
    void echo(std::span<const char> received);
    void sleepUntilMore(std::int32_t waiting);

    std::int32_t lowWaterMark_ = 1; ///< the socket's, in bytes
};
