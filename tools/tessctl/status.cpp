#include "tools/tessctl/status.h"

#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

#include "tools/tessctl/daemon_client.h"
#include "tools/tessctl/item_json.h"
#include "tools/tessctl/metrics.h"
#include "tools/tessctl/option_checks.h"
#include "tools/tessctl/socket_owner.h"
#include "tools/tessctl/standard_output.h"
#include "tools/tessctl/status_query.h"
#include "tools/tessctl/status_view.h"
#include "tools/tessctl/terminal_size.h"
#include "tools/tessctl/visible_text.h"

namespace {

std::vector<Item> ask()
{
    DaemonClient daemon;
    return askStatus(daemon);
}

long addressOf(const Item& process)
{
    return static_cast<long>(process.number("address"));
}

/// Adds to each registered process who has its queue, as far as this user may see. tessd cannot
/// tell: the kernel names it no owner of a datagram socket.
std::vector<Item> askWithOwners()
{
    std::vector<Item> items = ask();
    std::set<std::string> paths;
    for (const Item& process : itemsOf(items, "process"))
        paths.insert(queuePath(addressOf(process)));
    const std::map<std::string, SocketOwner> owners = socketOwners(paths);
    for (Item& item : items) {
        if (item.word() != "process") continue;
        const auto found = owners.find(queuePath(addressOf(item)));
        const SocketOwner owner = found != owners.end() ? found->second : SocketOwner();
        const std::string pid = std::to_string(owner.pid);
        item.add("pid", {false, pid, pid});
        item.add("program", {true, visibleText(owner.program), owner.program});
    }
    return items;
}

ExitStatus print(const std::vector<std::string>& lines)
{
    for (const std::string& line : lines)
        std::cout << line << '\n';
    requireOutput();
    return STATUS_DONE;
}

} // namespace

ExitStatus runStatus(bool json)
{
    const std::vector<Item> items = json ? askWithOwners() : ask();
    return print(json ? std::vector{jsonText(statusJson(items), 2)} : statusLines(items, terminalSize().columns));
}

ExitStatus runList(bool json, bool namesOnly)
{
    const std::vector<Item> items = namesOnly ? ask() : askWithOwners();
    if (json) return print({jsonText(jsonOfAll(items, "process"), 2)});
    if (!namesOnly) return print(processLines(items, terminalSize().columns));
    std::vector<std::string> names;
    for (const Item& process : itemsOf(items, "process"))
        if (const std::string name = process.text("name"); nameProblem(name).empty()) names.push_back(name);
    return print(names);
}

ExitStatus runWho(bool json)
{
    const std::vector<Item> items = ask();
    return print(json ? std::vector{jsonText(jsonOfAll(items, "connection"), 2)}
                      : connectionLines(items, terminalSize().columns));
}

ExitStatus runMetrics(bool json)
{
    if (json) return runStatus(true);
    std::cout << metricsText(ask());
    requireOutput();
    return STATUS_DONE;
}
