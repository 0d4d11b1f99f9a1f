#include "tools/tessctl/metrics.h"

#include "tools/tessctl/status_query.h"

namespace {

/// A label's value: a quote and a backslash have a backslash in front.
std::string label(const char* name, const std::string& value)
{
    std::string text = std::string(name) + "=\"";
    for (const char c : value) {
        if (c == '"' || c == '\\') text += '\\';
        text += c;
    }
    return text + '"';
}

enum class Type { counter, gauge };

/// Metrics, family by family.
class MetricsWriter {
public:
    void family(const std::string& name, Type type, const char* help)
    {
        sample_ = name + (type == Type::counter ? "_total" : "");
        text_ += "# TYPE " + name + (type == Type::counter ? " counter\n" : " gauge\n");
        text_ += "# HELP " + name + " " + help + ".\n";
    }

    void sample(const std::string& labels, const std::string& value)
    {
        text_ += sample_ + (labels.empty() ? "" : "{" + labels + "}") + " " + value + "\n";
    }

    void one(const std::string& name, Type type, const char* help, const std::string& value)
    {
        family(name, type, help);
        sample("", value);
    }

    std::string end() const { return text_ + "# EOF\n"; }

private:
    std::string text_;
    std::string sample_;
};

struct Row {
    const char* key;
    const char* name;
    Type type;
    const char* help;
};

constexpr Row COUNTS[] = {
    {"lines", "tess_lines", Type::counter, "Command lines taken"},
    {"forwarded", "tess_commands_forwarded", Type::counter, "Commands put into the queue of a process"},
    {"refused", "tess_commands_refused", Type::counter, "Commands that were not carried out"},
    {"answered", "tess_answers_routed", Type::counter, "Answers written to the connection that asked"},
    {"dropped", "tess_answers_dropped", Type::counter, "Answers for a connection that is gone"},
    {"unknown", "tess_messages_unknown", Type::counter, "Messages of kinds that mean nothing"},
    {"logins", "tess_logins", Type::counter, "Logins accepted"},
    {"login_failures", "tess_login_failures", Type::counter, "Logins refused"},
    {"queue_waits", "tess_queue_waits", Type::counter, "Messages that waited for room in the queue of a process"},
};

constexpr Row PORTS[] = {
    {"open", "tess_port_open", Type::gauge, "Whether the port is open"},
    {"connections", "tess_port_connections", Type::gauge, "Connections of the port"},
    {"limit", "tess_port_connections_limit", Type::gauge, "Connections that the port takes at most"},
};

constexpr Row PROCESSES[] = {
    {"sent", "tess_process_commands", Type::counter, "Commands for the process"},
    {"answered", "tess_process_answers", Type::counter, "Answers of the process"},
    {"full", "tess_process_queue_full", Type::gauge, "Whether the queue of the process is full"},
};

void writeDaemon(MetricsWriter& to, const std::vector<Item>& items)
{
    const Item& daemon = itemOf(items, "daemon");
    to.family("tess_build_info", Type::gauge, "The version of tessd, always 1");
    to.sample(label("version", daemon.text("version")), "1");
    to.one("tess_uptime_seconds", Type::gauge, "Seconds since the start of tessd", daemon.text("uptime"));
    to.one("tess_delays_pending", Type::gauge, "Delayed command lines that are pending", daemon.text("delays"));
    to.one("tess_watchers", Type::gauge, "Processes that watch", daemon.text("watchers"));
    to.one("tess_processes", Type::gauge, "Registered processes", std::to_string(itemsOf(items, "process").size()));
}

} // namespace

std::string metricsText(const std::vector<Item>& items)
{
    MetricsWriter text;
    writeDaemon(text, items);
    for (const Row& row : COUNTS)
        text.one(row.name, row.type, row.help, itemOf(items, "count").text(row.key));
    for (const Row& row : PORTS) {
        text.family(row.name, row.type, row.help);
        for (const Item& port : itemsOf(items, "port"))
            text.sample(label("port", port.text("name")), port.text(row.key));
    }
    for (const Row& row : PROCESSES) {
        text.family(row.name, row.type, row.help);
        for (const Item& process : itemsOf(items, "process"))
            text.sample(label("process", process.text("name")), process.text(row.key));
    }
    return text.end();
}
