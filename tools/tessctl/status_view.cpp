#include "tools/tessctl/status_view.h"

#include <algorithm>

#include "framework/tess_messages.h"
#include "tools/tessctl/status_query.h"
#include "tools/tessctl/text_table.h"

namespace {

struct PortBit {
    std::uint32_t port;
    const char* name;
};

constexpr PortBit PORTS[] = {{PORT_COM2, "com2"}, {PORT_TELNET, "telnet"}, {PORT_XCP, "xcp"}, {PORT_IPC, "ipc"}};

std::string age(const Item& item, const char* key)
{
    return spanText(std::chrono::seconds(item.number(key)));
}

std::string orDash(const std::string& text)
{
    return text.empty() ? "-" : text;
}

std::string ownerText(const Item& process)
{
    return process.number("pid") != 0 ? "pid " + process.text("pid") + " " + process.text("program") : "-";
}

std::string portSummary(const Item& port)
{
    if (port.number("open") == 0) return port.text("name") + " closed";
    return port.text("name") + " " + port.text("connections") + " of " + port.text("limit");
}

} // namespace

std::string spanText(std::chrono::seconds span)
{
    using namespace std::chrono;
    const auto text = [](auto large, const char* largeUnit, auto small, const char* smallUnit) {
        return std::to_string(large) + " " + largeUnit + " " + std::to_string(small) + " " + smallUnit;
    };
    const std::int64_t s = span.count();
    if (s < 60) return std::to_string(s) + " s";
    if (s < 3600) return text(s / 60, "min", s % 60, "s");
    if (s < 86400) return text(s / 3600, "h", s % 3600 / 60, "min");
    return text(s / 86400, "d", s % 86400 / 3600, "h");
}

std::string portsText(std::uint32_t mask)
{
    std::string text;
    for (const PortBit& each : PORTS)
        if ((mask & each.port) != 0) text.append(text.empty() ? "" : ",").append(each.name);
    return text;
}

std::vector<std::string> statusLines(const std::vector<Item>& items, std::size_t width)
{
    const Item& daemon = itemOf(items, "daemon");
    const Item& count = itemOf(items, "count");
    std::vector<std::vector<std::string>> rows;
    rows.push_back(
        {"tessd", daemon.text("version") + ", process " + daemon.text("pid") + ", up " + age(daemon, "uptime")});
    for (const Item& port : itemsOf(items, "port"))
        rows.push_back({"port", portSummary(port)});
    rows.push_back({"connections", std::to_string(itemsOf(items, "connection").size())});
    rows.push_back({"processes",
                    std::to_string(itemsOf(items, "process").size()) + " of " + std::to_string(MAX_REGISTERED_PROCS)});
    rows.push_back({"delays", daemon.text("delays") + " pending"});
    rows.push_back({"watchers", daemon.text("watchers")});
    rows.push_back({"lines", count.text("lines")});
    rows.push_back({"commands", count.text("forwarded") + " forwarded, " + count.text("refused") + " refused"});
    rows.push_back({"answers", count.text("answered") + " routed, " + count.text("dropped") + " dropped"});
    rows.push_back({"logins", count.text("logins") + " accepted, " + count.text("login_failures") + " refused"});
    rows.push_back({"full queues", count.text("queue_waits") + " waits"});
    rows.push_back({"unknown", count.text("unknown") + " messages"});
    return tableLines(rows, width);
}

std::vector<std::string> processLines(const std::vector<Item>& items, std::size_t width)
{
    const std::vector<Item> processes = itemsOf(items, "process");
    const bool hasOwners = std::ranges::any_of(processes, [](const Item& each) { return each.find("pid") != nullptr; });
    std::vector<std::vector<std::string>> rows{{"NAME", "ADDRESS", "SENT", "ANSWERED", "QUEUE", "PORTS"}};
    if (hasOwners) rows.front().emplace_back("OWNER");
    for (const Item& process : processes) {
        rows.push_back({orDash(process.text("name")), process.text("address"), process.text("sent"),
                        process.text("answered"), process.number("full") != 0 ? "full" : "ok",
                        portsText(static_cast<std::uint32_t>(process.number("ports")))});
        if (hasOwners) rows.back().push_back(ownerText(process));
    }
    return tableLines(rows, width);
}

std::vector<std::string> connectionLines(const std::vector<Item>& items, std::size_t width)
{
    std::vector<std::vector<std::string>> rows{{"PORT", "ID", "USER", "CONNECTED", "IDLE", "WAITS FOR", "PEER"}};
    for (const Item& conn : itemsOf(items, "connection"))
        rows.push_back({conn.text("port"), conn.text("id"), orDash(conn.text("user")), age(conn, "connected"),
                        age(conn, "idle"), orDash(conn.text("waits")), orDash(conn.text("peer"))});
    return tableLines(rows, width);
}
