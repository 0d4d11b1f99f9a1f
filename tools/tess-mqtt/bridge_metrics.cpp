#include "tools/tess-mqtt/bridge_metrics.h"

#include <string_view>

#include "tools/tessctl/metrics.h"

namespace {

constexpr std::string_view END = "# EOF\n";

void addCounter(std::string& text, const std::string& name, const std::string& help, std::uint64_t value)
{
    text += "# TYPE " + name + " counter\n# HELP " + name + " " + help + ".\n" + name + "_total " +
            std::to_string(value) + "\n";
}

void addRequests(std::string& text, const BridgeCounts& counts)
{
    text += "# TYPE tess_mqtt_requests counter\n# HELP tess_mqtt_requests Requests that were answered, by status.\n";
    const auto add = [&text](const char* status, std::uint64_t value) {
        text += std::string("tess_mqtt_requests_total{status=\"") + status + "\"} " + std::to_string(value) + "\n";
    };
    add("answered", counts.answered);
    add("refused", counts.refused);
    add("timeout", counts.timeout);
    add("busy", counts.busy);
}

} // namespace

std::string bridgeMetrics(const std::vector<Item>& items, const BridgeCounts& counts)
{
    std::string text = items.empty() ? std::string() : metricsText(items);
    if (text.ends_with(END)) text.resize(text.size() - END.size());
    addRequests(text, counts);
    addCounter(text, "tess_mqtt_requests_again", "Requests that were delivered once more", counts.again);
    addCounter(text, "tess_mqtt_requests_ignored", "Publications that are no request", counts.ignored);
    addCounter(text, "tess_mqtt_answers_lost", "Answers that no broker has taken in time", counts.lost);
    addCounter(text, "tess_mqtt_answers_stray", "Answers that belong to no request", counts.strays);
    addCounter(text, "tess_mqtt_events_unsent", "Events for which there was no room", counts.unsent);
    text += "# TYPE tess_mqtt_requests_in_flight gauge\n# HELP tess_mqtt_requests_in_flight Requests under way.\n"
            "tess_mqtt_requests_in_flight " +
            std::to_string(counts.inFlight) + "\n";
    return text.append(END);
}
