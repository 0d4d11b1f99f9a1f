#pragma once

#include <mutex>
#include <span>
#include <string_view>

#include "connections/port_conn.h"

/// What the clients of both local sockets have in common: they need not log in and may be silent
/// for as long as they like. Owns: its descriptor.
/// Threads: as TPortConn; and whoever has locked `outputLock` may write, if the connection was not
/// removed before that.
class LocalConn : public TPortConn {
public:
    /// Answers that writeTogether() sends at a time.
    static constexpr std::size_t MOST_TOGETHER = 32;

    LocalConn(std::uint32_t portType, std::uint32_t id);
    ~LocalConn() override;

    /// As TPortConn::write(). Locks `outputLock`.
    int write(TOrbAttachmentMsg* msg) override;
    int hasTimedOut() override { return 0; }
    void setEcho(int on) override { echoFlag = on != 0 ? 1 : 0; }
    int isSerialLine() override { return 0; }
    std::uint32_t getPortId() override { return portId; }

    /// As write() of each record in turn, but by one send while the client takes all of it. Needs
    /// `outputLock`.
    void writeTogether(std::span<TOrbAttachmentMsg* const> msgs);

    /// Waits until nobody writes. To be called before a connection is removed.
    static void awaitOutput() { const std::scoped_lock lock(outputLock); }

    /// In a process that has just been forked, whoever of the parent was writing.
    static void startInForkedChild();

    /// Of all local connections. Comes behind the daemon's connection lock.
    static std::mutex outputLock;

    std::uint8_t echoFlag = 1; ///< set and cleared by reads; nothing is ever echoed (deliberate)

protected:
    /// @return the bytes of a record that the client gets, after changing in it what has to be
    ///         changed for that
    virtual std::string_view toBeSent(TOrbAttachmentMsg& msg) const = 0;

    /// As write(), without the lock.
    virtual int send(TOrbAttachmentMsg& msg) = 0;

private:
    void sendTogether(std::span<TOrbAttachmentMsg* const> msgs);
};
