#include "connections/witness.h"

#include <chrono>
#include <cstring>

#include "common/item_line.h"
#include "common/port_name.h"
#include "common/watch_feed.h"
#include "connections/audit_log.h"
#include "connections/conn_peer.h"
#include "framework/tess_messages.h"

namespace witness {

namespace {

/// The beginning of every line for watchers.
ItemLine event(std::string_view word)
{
    using namespace std::chrono;
    ItemLine line(word);
    line.seconds("time", duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count());
    return line;
}

ItemLine event(std::string_view word, std::uint32_t connId, std::uint32_t portType)
{
    ItemLine line = event(word);
    line.hex("connection", connId);
    if (portType != 0) line.text("port", portName(portType));
    return line;
}

/// @param conn  null: a delayed line's
ItemLine event(std::string_view word, const TPortConn* conn)
{
    return conn != nullptr ? event(word, conn->connId, conn->portId) : event(word, 0, PORT_DELAYED);
}

void watch(const ItemLine& line)
{
    if (isListening(LISTENER_WATCHERS)) g_watch.append(line.view());
}

bool isAudited()
{
    return isListening(LISTENER_AUDIT);
}

std::string_view peer(const TPortConn& conn, FixedText<128>& room)
{
    room = peerText(peerOf(conn), {});
    return room.view();
}

/// Who has done what is logged.
/// @param conn  null: a delayed line's
ItemLine who(const TPortConn* conn)
{
    ItemLine line("");
    if (conn == nullptr) return line.text("port", portName(PORT_DELAYED));
    FixedText<128> room;
    line.text("port", portName(conn->portId)).hex("connection", conn->connId).text("peer", peer(*conn, room));
    return line;
}

ItemLine whoAndUser(const TPortConn* conn)
{
    ItemLine line = who(conn);
    if (conn != nullptr) line.text("user", conn->user.view());
    return line;
}

std::string_view textOf(const TOrbAttachmentMsg& record)
{
    return {record.text, ::strnlen(record.text, MSG_TEXT_BYTES)};
}

} // namespace

void tellConnected(const TPortConn& conn)
{
    FixedText<128> room;
    watch(event("connect", &conn).text("peer", peer(conn, room)));
}

void tellDisconnected(const TPortConn& conn)
{
    watch(event("disconnect", &conn));
}

void tellLogin(const TPortConn& conn)
{
    watch(event("login", &conn).text("user", conn.user.view()).number("accepted", 1));
    if (isAudited()) logLongMessage(audit_log::login, whoAndUser(&conn).c_str());
}

void tellLoginRefused(const TPortConn& conn, std::string_view user)
{
    watch(event("login", &conn).text("user", user).number("accepted", 0));
    if (isAudited()) logLongMessage(audit_log::loginRefused, who(&conn).text("user", user).c_str());
}

void tellLine(const TPortConn* conn, std::string_view text)
{
    watch(event("line", conn).text("text", text));
    if (isAudited()) logLongMessage(audit_log::line, whoAndUser(conn).text("text", text).c_str());
}

void tellForwarded(std::uint32_t connId, std::uint32_t portType, long process)
{
    watch(event("forward", connId, portType).number("process", process));
}

void tellRefused(const TPortConn* conn, std::string_view text)
{
    watch(event("refuse", conn).text("text", text));
    if (isAudited()) logLongMessage(audit_log::refused, whoAndUser(conn).text("text", text).c_str());
}

void tellAnswer(std::uint32_t connId, std::uint32_t portType, const TOrbAttachmentMsg& answer)
{
    watch(event(portType != 0 ? "answer" : "drop", connId, portType)
              .number("process", answer.sender)
              .text("text", textOf(answer)));
}

void tellRegistered(long process, std::string_view name, std::uint32_t ports)
{
    watch(event("register").text("name", name).number("process", process).number("ports", ports));
}

void tellUnregistered(long process, std::string_view name)
{
    watch(event("unregister").text("name", name).number("process", process));
}

void tellReset(long process, std::string_view text, std::string_view result)
{
    watch(event("reset").number("process", process).text("text", text).text("result", result));
    if (!isAudited()) return;
    logLongMessage(audit_log::reset,
                   ItemLine("").number("process", process).text("text", text).text("result", result).c_str());
}

} // namespace witness
