#include "tools/tess-mqtt/bridge_settings.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

/// What is wrong with a text.
std::string problem(const std::string& text, const std::string& host = "s3.local")
{
    try {
        (void)bridgeSettings(text, "f", host);
    } catch (const SettingsError& error) {
        return error.what();
    }
    return {};
}

} // namespace

TEST(BridgeSettings, AreReadFromLines)
{
    const BridgeSettings settings = bridgeSettings("# a comment\n"
                                                   "\n"
                                                   "broker = example.org:1234\r\n"
                                                   "  groups=a, b\ta\n"
                                                   "ca = /etc/ca.crt\n"
                                                   "user=u\n"
                                                   "password = a = b \n"
                                                   "filter = deny x\n"
                                                   "events = asked\n"
                                                   "in_flight = 7",
                                                   "f", "s3.local");
    EXPECT_EQ(settings.device, "s3");
    EXPECT_EQ(settings.broker.host, "example.org");
    EXPECT_EQ(settings.broker.portOrDefault(), 1234);
    EXPECT_FALSE(settings.broker.plain);
    EXPECT_EQ(settings.broker.password, "a = b");
    EXPECT_EQ(settings.groups, (std::vector<std::string>{"a", "b"}));
    EXPECT_FALSE(settings.filter.allows("x"));
    EXPECT_EQ(settings.events, EventMode::asked);
    EXPECT_EQ(settings.mostInFlight, 7);
}

TEST(BridgeSettings, NameTheBrokerAndItsPort)
{
    struct Row {
        const char* value;
        const char* host;
        long port;
    };
    constexpr Row rows[] = {{"h", "h", 8883},        {"h:1", "h", 1},        {"10.0.0.1:65535", "10.0.0.1", 65535},
                            {"[::1]:99", "::1", 99}, {"[::1]", "::1", 8883}, {"fe80::1", "fe80::1", 8883}};
    for (const Row& row : rows) {
        const BridgeSettings settings = bridgeSettings(std::string("broker = ") + row.value, "f", "h");
        EXPECT_EQ(settings.broker.host, row.host) << row.value;
        EXPECT_EQ(settings.broker.portOrDefault(), row.port) << row.value;
    }
    EXPECT_EQ(bridgeSettings("broker = h\nplain = yes", "f", "h").broker.portOrDefault(), 1883);
}

TEST(BridgeSettings, SayWhatIsWrongAndWhere)
{
    const std::pair<const char*, const char*> rows[] = {
        {"", "f: it does not name a broker: broker = HOST"},
        {"broker = h\nnonsense", "f:2: a line is 'key = value'"},
        {"broker = h\nfiltr = deny x", "f:2: no setting is called 'filtr': do you mean 'filter'?"},
        {"broker = :1", "f:1: 'broker' is HOST or HOST:PORT"},
        {"broker = h:0", "f:1: 'broker' is HOST or HOST:PORT"},
        {"broker = h:x", "f:1: 'broker' is HOST or HOST:PORT"},
        {"broker = h:", "f:1: 'broker' is HOST or HOST:PORT"},
        {"broker = h:123456", "f:1: 'broker' is HOST or HOST:PORT"},
        {"broker =", "f:1: 'broker' is HOST or HOST:PORT"},
        {"broker = h:65536", "f:1: 'broker' is HOST or HOST:PORT"},
        {"broker = h\npsk = 0", "f:2: 'psk' is a key in hexadecimal, two digits a byte"},
        {"broker = h\npsk =", "f:2: 'psk' is a key in hexadecimal, two digits a byte"},
        {"broker = h\npsk = 0g", "f:2: 'psk' is a key in hexadecimal, two digits a byte"},
        {"broker = h\npsk = 00", "f: 'psk' and 'psk_identity' belong together"},
        {"broker = h\npsk_identity = i", "f: 'psk' and 'psk_identity' belong together"},
        {"broker = h\npsk = 00\npsk_identity = i\nca = c",
         "f: 'psk' stands in the place of certificates: take out one or the other"},
        {"broker = h\nxyzzy = 1", "f:2: no setting is called 'xyzzy'"},
        {"broker = h\ntimeout = 3601", "f:2: 'timeout' is a whole number from 1 to 3600"},
        {"broker = h\nkey = k", "f: 'certificate' and 'key' belong together"},
        {"broker = h\npassword = p", "f: 'password' wants a 'user'"},
        {"broker = h\ntimeout = 0", "f:2: 'timeout' is a whole number from 1 to 3600"},
        {"broker = h\ntimeout = 5s", "f:2: 'timeout' is a whole number from 1 to 3600"},
        {"broker = h\nfilter = RESET", "f:2: 'filter' is 'allow PATTERN' or 'deny PATTERN'"},
        {"broker = h\nevents = yes", "f:2: 'events' is 'no', 'asked' or 'always'"},
        {"broker = h\nuser =", "f:2: 'user' is empty"},
        {"broker = h\nroot = a/+", "f:2: 'root' is a topic without '+', '#' and '$' in it, and not one of blanks"},
        {"broker = h\nplain = yes\npsk = 00\npsk_identity = i",
         "f: 'plain = yes' contradicts the keys and certificates: take out one or the other"},
    };
    for (const auto& [text, said] : rows)
        EXPECT_EQ(problem(text), said) << text;
    EXPECT_EQ(problem("broker = h\npsk = " + std::string(130, '0')),
              "f:2: 'psk' is a key in hexadecimal, two digits a byte");
    EXPECT_EQ(problem("broker = h\nroot = plant/1\nevents = no\nplain = no"), "");
    EXPECT_EQ(problem("broker = h\ngroups = a/b").substr(0, 14), "f:2: 'groups' ");
    EXPECT_EQ(problem("broker = h", "all"), "f: this host's name cannot be that of a device: device = NAME");
    EXPECT_EQ(problem("broker = h\ndevice = d", "all"), "");
}

TEST(SettingsFile, IsReadOrItIsSaidWhyNot)
{
    const std::string folder = testing::TempDir() + "settings-" + std::to_string(::getpid());
    const std::string file = folder + "/file";
    std::filesystem::create_directory(folder);
    const auto problemOf = [](const std::string& path) {
        try {
            (void)settingsFileText(path);
        } catch (const SettingsError& error) {
            return std::string(error.what());
        }
        return std::string();
    };
    std::ofstream(file) << "broker = h\n";
    EXPECT_EQ(settingsFileText(file), "broker = h\n");
    std::ofstream(file) << std::string(65536, '#');
    EXPECT_EQ(settingsFileText(file).size(), 65536U);
    std::ofstream(file) << std::string(65537, '#');
    EXPECT_EQ(problemOf(file), file + ": it is too long for a file of settings");
    std::ofstream(file).close();
    EXPECT_EQ(settingsFileText(file), "");
    EXPECT_EQ(problemOf(folder), folder + ": Is a directory");
    EXPECT_EQ(problemOf(folder + "/none"), folder + "/none: No such file or directory");
    std::filesystem::remove_all(folder);
}
