#include "tools/tess-mqtt/presence.h"

#include <nlohmann/json.hpp>

namespace {

using Json = nlohmann::ordered_json;

std::string text(const Json& json)
{
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

} // namespace

std::string onlineText(const Topics& topics, const Presence& presence, const std::string& bridge)
{
    const Json version = presence.version.empty() ? Json(nullptr) : Json(presence.version);
    return text({{"status", "online"},
                 {"device", topics.device()},
                 {"groups", topics.groups()},
                 {"tessd", version},
                 {"names", presence.names},
                 {"bridge", bridge}});
}

std::string offlineText(const Topics& topics)
{
    return text({{"status", "offline"}, {"device", topics.device()}, {"groups", topics.groups()}});
}
