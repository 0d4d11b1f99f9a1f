#include "tools/tess-mqtt/broker_settings.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <unistd.h>

#include "tools/tess-mqtt/topics.h"

namespace {

std::string takeBroker(BrokerSettings& settings, const std::string& value)
{
    const std::size_t colon = value.rfind(':');
    const bool isBracketed = value.starts_with('[');
    const bool hasPort = colon != std::string::npos && (isBracketed || value.find(':') == colon) &&
                         (!isBracketed || (colon > 0 && value[colon - 1] == ']'));
    settings.host = value.substr(0, hasPort ? colon : std::string::npos);
    if (isBracketed && settings.host.ends_with(']')) settings.host = settings.host.substr(1, settings.host.size() - 2);
    settings.port = 0;
    std::string problem = "is HOST or HOST:PORT";
    if (settings.host.empty()) return problem;
    if (!hasPort) return {};
    const std::string digits = value.substr(colon + 1);
    const bool isNumber = !digits.empty() && digits.size() < 6 &&
                          std::ranges::all_of(digits, [](unsigned char c) { return std::isdigit(c) != 0; });
    settings.port = isNumber ? std::stol(digits) : 0;
    return settings.port > 0 && settings.port < 65536 ? std::string() : problem;
}

} // namespace

void addBrokerSettings(SettingsTable& table, BrokerSettings& settings)
{
    table.add("broker", [&settings](const std::string& value) { return takeBroker(settings, value); });
    table.add("root", [&settings](const std::string& value) {
        settings.root = value;
        return std::string(isTopicName(value) ? ""
                                              : "is a topic without '+', '#' and '$' in it, and not one of blanks");
    });
    table.add("psk", [&settings](const std::string& value) {
        settings.psk = value;
        const bool isHex = value.size() % 2 == 0 && !value.empty() && value.size() <= 128 &&
                           std::ranges::all_of(value, [](unsigned char c) { return std::isxdigit(c) != 0; });
        return std::string(isHex ? "" : "is a key in hexadecimal, two digits a byte");
    });
    table.addSwitch("plain", settings.plain);
    table.addText("ca", settings.ca);
    table.addText("certificate", settings.certificate);
    table.addText("key", settings.key);
    table.addText("psk_identity", settings.pskIdentity);
    table.addText("user", settings.user);
    table.addText("password", settings.password);
    table.addNumber("keep_alive", 5, 3600, settings.keepAlive);
}

std::string unreadableFile(const BrokerSettings& settings)
{
    if (settings.plain || !settings.psk.empty()) return {};
    for (const std::string& path : {settings.trusted(), settings.certificate, settings.key})
        if (!path.empty() && ::access(path.c_str(), R_OK) != 0) return path + ": " + std::strerror(errno);
    return {};
}

std::string brokerProblem(const BrokerSettings& settings)
{
    const bool hasPsk = !settings.psk.empty() || !settings.pskIdentity.empty();
    const bool hasCertificate = !settings.certificate.empty() || !settings.key.empty();
    if (settings.host.empty()) return "it does not name a broker: broker = HOST";
    if (settings.plain && (hasPsk || hasCertificate || !settings.ca.empty()))
        return "'plain = yes' contradicts the keys and certificates: take out one or the other";
    if (hasPsk && (hasCertificate || !settings.ca.empty()))
        return "'psk' stands in the place of certificates: take out one or the other";
    if (settings.psk.empty() != settings.pskIdentity.empty()) return "'psk' and 'psk_identity' belong together";
    if (settings.certificate.empty() != settings.key.empty()) return "'certificate' and 'key' belong together";
    if (settings.user.empty() && !settings.password.empty()) return "'password' wants a 'user'";
    return {};
}
