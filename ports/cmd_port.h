#pragma once

#include <atomic>
#include <cstdint>
#include <sys/select.h>
#include <sys/socket.h>
#include <vector>

#include "common/wait_set.h"
#include "connections/port_conn.h"

/// Makes a connection of a port's kind, which the caller owns.
using MakeConn = TPortConn* (*)(std::uint32_t portType, std::uint32_t connId);

template <class Conn> TPortConn* makeConn(std::uint32_t portType, std::uint32_t connId)
{
    return new Conn(portType, connId);
}

/// One listening endpoint for commands. Owns: `fd`, from openPort() to closePort(). A connection is
/// handed out by chkNewConn() and comes back in closeConn() to be deleted; in between it is the
/// daemon's.
/// Threads: no lock of its own. chkNewConn() and isDue() on the service thread; closeConn() also on
/// the main thread, then with the daemon's connection lock held: it changes nothing but
/// `activeConns`.
class TCmdPort {
public:
    /// Connection IDs are this far apart: the lower 16 bits are free for a client's tag.
    static constexpr std::uint32_t CONN_ID_STEP = 0x10000;
    static constexpr std::chrono::seconds REST_TIME{1};
    /// Clients that may wait to be accepted (listen(2)).
    static constexpr int BACKLOG = 10;

    /// @param type      the kind of port, as a single bit (TessPortType)
    /// @param limit     how many connections may live at a time
    /// @param firstId   connection-ID counter: the first connection gets one step more
    TCmdPort(std::uint32_t type, std::int32_t limit, std::uint32_t firstId);
    TCmdPort(const TCmdPort&) = delete;
    TCmdPort& operator=(const TCmdPort&) = delete;
    virtual ~TCmdPort() = default;

    /// Opens the endpoint.
    /// @return 0 open; 1 the descriptor could not be created, the port stays closed and safe to
    ///         destroy
    /// @throws std::runtime_error the endpoint could not be set up; its descriptor stays open
    ///                             (deliberate), until the process ends, as it then does
    virtual int openPort() = 0;

    /// Closes the endpoint, once; its connections stay, and are forgotten in `activeConns`.
    /// @return 0
    virtual int closePort() = 0;

    /// Takes the next waiting connection, if there is one; never waits for one.
    /// @param newConn  set only when 1 is returned; from then on the daemon's list owns it
    /// @return 1 handed out; 0 none: nothing pending, or accepted and already disposed of
    virtual int chkNewConn(TPortConn** newConn) = 0;

    /// Disposes of a connection of this port and nulls the slot that held it; a null slot is left
    /// alone.
    /// @return 0
    virtual int closeConn(TPortConn** conn) = 0;

    /// Adds what the service loop waits for on its behalf.
    void addTo(WaitSet& waits) const;

    /// @return true when chkNewConn() may have something to do
    bool isDue(const WaitSet& waits) const;

    std::uint32_t portType;
    int fd = -1; ///< listening socket or serial device; negative when it could not be opened
    fd_set readSet;
    bool isOpen = false;
    /// Connections of this port that exist, one being set up included. The main thread counts down
    /// without the service thread's knowledge.
    std::atomic<std::int32_t> activeConns{0};
    std::int32_t maxConns;
    std::uint32_t nextConnId; ///< ID of the newest connection; wraps silently

    // What the service loop waits for on behalf of the port.
    bool wantsInput = true; ///< false: the descriptor would wake the loop without a reason
    bool standing = false;  ///< the port makes a connection whenever there is none: no client asks for it
    Instant due = AT_ONCE;  ///< when it is asked for new connections whether or not a client waits: a new port at once
    std::vector<TPortConn*> arriving; ///< clients that have been accepted and are not ready to be handed out; owned

protected:
    /// Makes `fd` a stream socket (socket(2)), whose accept() never blocks.
    /// @return false: it could not be created
    bool openSocket(int family);

    /// Binds `fd` to an address and listens. A failure leaves it open (deliberate).
    /// @throws std::runtime_error  with one of the texts
    void listenAt(const sockaddr* address, socklen_t size, const char* bindFailure, const char* listenFailure) const;

    /// What every closePort() has in common.
    /// @return false: the port was closed already, and nothing is done
    bool closeEndpoint();

    /// Makes a connection and counts it.
    /// @throws std::bad_alloc  nothing has been counted
    TPortConn* addConn(MakeConn make, int connFd);

    /// Accepts a client and makes its connection. Whether it may stay is for the caller to find
    /// out.
    /// @param peer      receives the client's address; may be null
    /// @param peerSize  in: its room, out: its size; may be null
    /// @return owned by the caller, who must dispose of it if mayStay() says no: `fd` is -1 when
    ///         the client has gone meanwhile. null: nobody was accepted for want of descriptors or
    ///         memory; the port then rests
    TPortConn* acceptConn(MakeConn make, sockaddr* peer = nullptr, socklen_t* peerSize = nullptr);

    /// What every closeConn() has in common.
    /// @return false: the slot is null, and nothing is done
    bool dispose(TPortConn** conn);

    /// @param conn  null: none
    /// @return as chkNewConn()
    static int handOut(TPortConn* conn, TPortConn** newConn);

    /// @return the ID that log lines give for the newest connection: the one before its own
    ///         (deliberate)
    std::uint32_t announcedConnId() const { return nextConnId - CONN_ID_STEP; }

    /// @return true when a client waits to be accepted
    bool clientWaits();

    /// Accepts a client, non-blocking and close-on-exec. When the process or the system has no
    /// descriptors left, the port rests for a second: the client still waits, and would wake the
    /// service loop without end.
    /// @param client    its descriptor; -1 when there is no client any more
    /// @param peer      receives the client's address; may be null
    /// @param peerSize  in: its room, out: its size; may be null
    /// @return false when nobody was accepted for want of descriptors
    bool accept(int& client, sockaddr* peer, socklen_t* peerSize);

    /// @return true when a connection has a descriptor that an fd_set can hold, and is not one too
    ///         many
    bool mayStay(const TPortConn& conn) const;

private:
    void rest();
    void countNewConn();
};
