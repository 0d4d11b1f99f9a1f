#pragma once

#include <string>

#include "tools/tess-mqtt/settings_table.h"

/// How a broker is reached, and as whom.
struct BrokerSettings {
    std::string host;
    long port = 0; ///< 0: 8883, or 1883 without TLS
    bool plain = false;
    std::string ca; ///< a file, or a folder of hashed files; empty: what the system trusts
    std::string certificate;
    std::string key;
    std::string pskIdentity;
    std::string psk; ///< in hexadecimal
    std::string user;
    std::string password;
    std::string root = "tess"; ///< in front of every topic
    long keepAlive = 10;       ///< seconds

    /// `ca`, or what the system trusts.
    std::string trusted() const { return ca.empty() ? "/etc/ssl/certs" : ca; }

    long portOrDefault() const { return port != 0 ? port : plain ? 1883 : 8883; }
};

/// The keys of a broker.
void addBrokerSettings(SettingsTable& table, BrokerSettings& settings);

/// Why a file of TLS cannot be used by this process; empty when all are there and may be read.
std::string unreadableFile(const BrokerSettings& settings);

/// What does not go together, or is missing.
/// @return empty when nothing is wrong
std::string brokerProblem(const BrokerSettings& settings);
