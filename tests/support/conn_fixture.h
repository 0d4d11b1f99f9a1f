#pragma once

#include <cstdint>
#include <gtest/gtest.h>
#include <string_view>

#include "tests/support/conn_texts.h"
#include "tests/support/stream_pair.h"

/// What the tests of all kinds of connections do with one.
template <class Conn> class ConnFixture : public testing::Test {
protected:
    ConnFixture(std::uint32_t portType, std::uint32_t id) : conn(portType, id) {}

    /// The command lines of one read.
    Texts readLines()
    {
        result = conn.readCmd();
        return linesOf(conn, result);
    }

    /// Whether the service loop would wait for input, and for nothing else.
    bool waitsForInput() const { return conn.wantsInput && conn.due == NEVER; }

    /// A connection that was idle for too long.
    void letIdleTimeRunOut() { conn.idleTimer.setTimeOut({0, 0}); }

    Conn conn;
    int result = 0; ///< of the last read
};

/// A connection of a local socket.
template <class Conn> class StreamConnFixture : public ConnFixture<Conn> {
protected:
    StreamConnFixture(std::uint32_t portType, std::uint32_t id) : ConnFixture<Conn>(portType, id)
    {
        this->conn.fd = pair.releaseServer();
    }

    Texts sendAndRead(std::string_view bytes)
    {
        EXPECT_TRUE(pair.send(bytes));
        return this->readLines();
    }

    /// What a connection of a local socket is at its start: this one, and one without a descriptor
    /// yet.
    void expectStartsLoggedIn(std::uint32_t portType, std::uint32_t id)
    {
        const Conn fresh(portType, id + 0x1'0000);
        EXPECT_EQ(fresh.fd, -1);
        EXPECT_EQ(fresh.loginState, LOGIN_DONE);
        EXPECT_EQ(fresh.echoFlag, 1);
        EXPECT_EQ(this->conn.getPortId(), portType);
        EXPECT_EQ(this->conn.connId, id);
        EXPECT_EQ(this->conn.isSerialLine(), 0);
        EXPECT_EQ(this->conn.muteExpired(), 1);
    }

    StreamPair pair;
};
