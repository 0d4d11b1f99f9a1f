#include "daemon/status_report.h"

#include <algorithm>
#include <unistd.h>

#include "common/counters.h"
#include "common/item_line.h"
#include "common/port_name.h"

namespace {

void add(std::string& text, const ItemLine& line)
{
    text += line.view();
    text += '\n';
}

ItemLine daemonLine(const StatusReport& report)
{
    ItemLine line("daemon");
    line.text("version", TESS_VERSION).number("uptime", report.uptime.count()).number("pid", ::getpid());
    line.number("delays", g_counters.delays.value());
    line.number("watchers", static_cast<std::int64_t>(report.watchers));
    return line;
}

ItemLine countLine()
{
    struct Row {
        const char* key;
        const Counter& counter;
    };
    const Row rows[] = {
        {"lines", g_counters.lines},
        {"forwarded", g_counters.forwarded},
        {"answered", g_counters.answered},
        {"refused", g_counters.refused},
        {"dropped", g_counters.dropped},
        {"unknown", g_counters.unknown},
        {"logins", g_counters.logins},
        {"login_failures", g_counters.loginFailures},
        {"queue_waits", g_counters.queueWaits},
    };
    ItemLine line("count");
    for (const Row& row : rows)
        line.number(row.key, row.counter.value());
    return line;
}

ItemLine portLine(const StatusReport::Port& port)
{
    ItemLine line("port");
    line.text("name", portName(port.type)).number("open", port.isOpen ? 1 : 0);
    line.number("connections", port.connections).number("limit", port.limit);
    return line;
}

ItemLine connectionLine(const StatusReport::Connection& conn)
{
    const FixedText<64> program = conn.peer.credentials ? programOf(conn.peer.credentials->pid) : FixedText<64>();
    ItemLine line("connection");
    line.hex("id", conn.id).text("port", portName(conn.port)).text("peer", peerText(conn.peer, program.view()).view());
    line.text("user", conn.user).number("connected", conn.connected.count()).number("idle", conn.idle.count());
    line.text("waits", conn.waits);
    return line;
}

ItemLine processLine(const StatusReport::Process& process)
{
    ItemLine line("process");
    line.text("name", process.name).number("address", process.address).number("ports", process.ports);
    line.number("sent", process.sent).number("answered", process.answered).number("full", process.isFull ? 1 : 0);
    return line;
}

} // namespace

std::string statusText(const StatusReport& report)
{
    std::string text;
    add(text, daemonLine(report));
    add(text, countLine());
    for (const StatusReport::Port& port : report.ports)
        add(text, portLine(port));
    for (const StatusReport::Connection& conn : report.connections)
        add(text, connectionLine(conn));
    for (const StatusReport::Process& process : report.processes)
        add(text, processLine(process));
    return text;
}

std::vector<std::string_view> piecesOf(std::string_view text, std::size_t most)
{
    std::vector<std::string_view> pieces;
    do {
        const std::size_t end = text.size() <= most ? text.size() : text.rfind('\n', most - 1) + 1;
        const std::string_view piece = text.substr(0, end != 0 ? end : most);
        pieces.push_back(piece);
        text.remove_prefix(piece.size());
    } while (!text.empty());
    return pieces;
}
