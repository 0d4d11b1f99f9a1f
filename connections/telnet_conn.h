#pragma once

#include <cstdint>
#include <netinet/in.h>
#include <optional>
#include <span>
#include <sys/types.h>

#include "connections/port_conn.h"
#include "connections/telnet_echo_switch.h"
#include "connections/telnet_negotiation.h"

/// A telnet client (RFC 854). One that speaks LINEMODE (RFC 1184) edits lines and is told with the
/// ECHO option (RFC 857) when not to show them; any other is a plain byte stream that gets its
/// bytes echoed. Owns: its descriptor.
class TTelnetConn : public TPortConn {
public:
    TTelnetConn(std::uint32_t portType, std::uint32_t id);
    ~TTelnetConn() override;

    /// Finds out what the client speaks; to be called until it is done, each time when there is
    /// input (`wantsInput`) or `due` has come. A silent client is done after a second, one that
    /// never comes to an end after 5 seconds, and 5 more for its LINEMODE part.
    /// @return 0 done; 1 socket error, drop the connection; 2 under way
    int negotiateOptions();

    /// As TPortConn::readCmd(). A line without an end stays in the socket; where the connection
    /// echoes, what has come of it is echoed once. Urgent data is thrown away. Telnet commands are
    /// not taken out of lines, except while the echo is being switched (`settling`): then they are
    /// all that is taken, and the result is 0.
    int readCmd() override;
    int write(TOrbAttachmentMsg* msg) override;
    int hasTimedOut() override { return idleTimer.hasTimedOut() ? 1 : 0; }
    /// LINEMODE: offers or withdraws ECHO, and `settling` tells that the client's answer is
    /// awaited, for up to a second of silence or 2 in all. Any other client: at once.
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
    struct Ready {
        bool input, urgent;
    };

    Ready ready();
    ssize_t peek(std::span<char> buffer) const;
    std::size_t sendBytes(std::span<const telnet::Byte> bytes) const;
    void setLowWaterMark(int bytes);
    bool waitForMore(std::size_t waiting);
    template <class Exchange> telnet::Verdict takeTurn(Exchange& exchange);
    void goOnSettling();
    void echo(std::span<const char> received);
    int takeInput(std::span<const char> input);
    int keepHalfLine(std::size_t waiting);
    bool isReset() const;
    int sendText(const char* text, std::size_t length);

    int lowWaterMark_ = 1;                         ///< the socket's, in bytes
    std::optional<TelnetNegotiation> negotiation_; ///< while it is under way
    std::optional<TelnetEchoSwitch> echoSwitch_;   ///< while `settling`
};
