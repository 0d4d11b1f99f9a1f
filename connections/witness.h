#pragma once

#include <cstdint>
#include <string_view>

#include "common/counters.h"
#include "common/listeners.h"
#include "connections/port_conn.h"
#include "framework/orb_attachment_msg.h"

/// Whatever happens to connections, commands and the registry is told here: it is counted
/// (g_counters), and where somebody listens, told to the processes that watch (g_watch) and to the
/// audit log. Nothing here waits, and nothing is allocated. Where nobody listens, it costs a
/// branch.
/// Threads: the service thread, unless something else is said.
namespace witness {

/// Composes and hands out what the functions below are told.
void tellConnected(const TPortConn& conn);
void tellDisconnected(const TPortConn& conn);
void tellLogin(const TPortConn& conn);
void tellLoginRefused(const TPortConn& conn, std::string_view user);
void tellLine(const TPortConn* conn, std::string_view text);
void tellForwarded(std::uint32_t connId, std::uint32_t portType, long process);
void tellRefused(const TPortConn* conn, std::string_view text);
void tellAnswer(std::uint32_t connId, std::uint32_t portType, const TOrbAttachmentMsg& answer);
void tellRegistered(long process, std::string_view name, std::uint32_t ports);
void tellUnregistered(long process, std::string_view name);
void tellReset(long process, std::string_view text, std::string_view result);

/// A port has handed a connection out.
inline void connected(const TPortConn& conn)
{
    if (someoneListens()) tellConnected(conn);
}

/// A connection is about to be removed. Threads: whoever holds the connection lock.
inline void disconnected(const TPortConn& conn)
{
    if (someoneListens()) tellDisconnected(conn);
}

/// A user has logged in (`conn.user`).
inline void login(const TPortConn& conn)
{
    g_counters.logins.add();
    if (someoneListens()) tellLogin(conn);
}

/// A user was not let in.
/// @param user  empty when there is no such user: what was typed may be a password
inline void loginRefused(const TPortConn& conn, std::string_view user)
{
    g_counters.loginFailures.add();
    if (someoneListens()) tellLoginRefused(conn, user);
}

/// A command line is going to be interpreted.
/// @param conn  null for a delayed one, as below
inline void line(const TPortConn* conn, std::string_view text)
{
    g_counters.lines.add();
    if (someoneListens()) tellLine(conn, text);
}

/// A command has gone into a process's queue.
/// @param tag  of the record: the connection is in its upper half
inline void forwarded(std::uint32_t tag, std::uint32_t portType, long process)
{
    g_counters.forwarded.add();
    if (someoneListens()) tellForwarded(tag & 0xFFFF'0000U, portType, process);
}

/// A command was not carried out.
inline void refused(const TPortConn* conn, std::string_view text)
{
    g_counters.refused.add();
    if (someoneListens()) tellRefused(conn, text);
}

/// A process's answer is being written to the connection that asked. Threads: the message loop.
inline void answered(const TPortConn& conn, const TOrbAttachmentMsg& answer)
{
    g_counters.answered.add();
    if (someoneListens()) tellAnswer(conn.connId, conn.portId, answer);
}

/// A process's answer is for nobody who is there. Threads: the message loop.
inline void dropped(const TOrbAttachmentMsg& answer)
{
    g_counters.dropped.add();
    if (someoneListens()) tellAnswer(answer.tag & 0xFFFF'0000U, 0, answer);
}

/// A process has registered. Threads: the message loop.
inline void registered(long process, std::string_view name, std::uint32_t ports)
{
    if (someoneListens()) tellRegistered(process, name, ports);
}

/// A process has unregistered. Threads: the message loop.
inline void unregistered(long process, std::string_view name)
{
    if (someoneListens()) tellUnregistered(process, name);
}

/// A process has asked for a reset. Threads: the message loop.
/// @param result  "started", "refused", or "waits" for the program that re-initialises
inline void reset(long process, std::string_view text, std::string_view result)
{
    if (someoneListens()) tellReset(process, text, result);
}

} // namespace witness
