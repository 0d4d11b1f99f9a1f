#include <array>
#include <cstdlib>
#include <iostream>
#include <string>
#include <string_view>
#include <unistd.h>

#include "framework/log_mgr.h"
#include "tools/tess-mqtt/bridge.h"
#include "tools/tess-mqtt/mqtt_log.h"
#include "tools/tess-mqtt/mqtt_log_severity.h"

namespace {

constexpr const char* DEFAULT_SETTINGS = "/etc/tess/mqtt.conf";
constexpr int WRONG_USAGE = 64;    // EX_USAGE of sysexits.h
constexpr int WRONG_SETTINGS = 78; // EX_CONFIG

constexpr const char* HELP = R"(Usage: tess-mqtt [--config FILE] [--check]

Lets a broker of MQTT 5 hand commands to tessd, as the file says (/etc/tess/mqtt.conf).

  --config FILE  settings
  --check        say whether they are right, and end
  --help         this text
  --version      the version

The manual has more: man tess-mqtt
)";

struct Options {
    std::string settings = DEFAULT_SETTINGS;
    bool check = false;
    int end = -1; ///< the status to end with at once
};

Options wrong(const std::string& what)
{
    std::cerr << "tess-mqtt: " << what << "\ntess-mqtt: try 'tess-mqtt --help'\n";
    return {.end = WRONG_USAGE};
}

Options optionsOf(int argc, char** argv)
{
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string_view word = argv[i];
        if (word == "--help" || word == "-h") {
            std::cout << HELP;
            options.end = EXIT_SUCCESS;
        } else if (word == "--version" || word == "-V") {
            std::cout << "tess-mqtt " TESS_VERSION "\n";
            options.end = EXIT_SUCCESS;
        } else if (word == "--check") {
            options.check = true;
        } else if (word.starts_with("--config=")) {
            options.settings = word.substr(word.find('=') + 1);
        } else if (word == "--config" && i + 1 < argc) {
            options.settings = argv[++i];
        } else {
            return wrong("no option '" + std::string(word) + "', or it wants a value");
        }
    }
    return options;
}

std::string hostName()
{
    std::array<char, 256> name{};
    return ::gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "";
}

/// A file of the service's own, which is gone after a restart of the device.
std::string windowFile()
{
    const char* const folder = std::getenv("RUNTIME_DIRECTORY");
    return folder == nullptr || *folder == '\0' ? std::string() : std::string(folder) + "/requests";
}

} // namespace

int main(int argc, char** argv)
try {
    const Options options = optionsOf(argc, argv);
    if (options.end >= 0) return options.end;
    logMgr.setLogParameters(128, 6, "    [MQTT]", 4);
    setLogSeverities(mqttLogSeverity);
    const BridgeSettings settings = bridgeSettings(settingsFileText(options.settings), options.settings, hostName());
    if (options.check) {
        const std::string unreadable = unreadableFile(settings.broker);
        if (!unreadable.empty()) throw SettingsError(options.settings + ": " + unreadable);
        std::cout << options.settings << ": device " << settings.device << ", broker " << settings.broker.host << ':'
                  << settings.broker.portOrDefault() << (settings.broker.plain ? ", NOT encrypted\n" : ", with TLS\n");
        return EXIT_SUCCESS;
    }
    Bridge(settings, TESS_VERSION, windowFile()).run();
    return EXIT_SUCCESS;
} catch (const SettingsError& error) {
    logMessage(mqtt_log::settingsWrong, error.what());
    return WRONG_SETTINGS;
}
