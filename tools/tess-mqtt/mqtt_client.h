#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/tess-mqtt/broker_settings.h"
#include "tools/tess-mqtt/publication.h"

struct mosquitto;

/// A connection to a broker of MQTT 5, by libmosquitto, without threads and without waiting: the
/// caller waits for fd() and calls onReady(), and onTime() now and then. Looking up the broker's
/// name is the one thing that may take a while. Each connection is a new session: what the broker
/// could not deliver to the one before it is not delivered to this one.
/// Threads: one.
class MqttClient {
public:
    /// What happens, called from connect(), onReady() and onTime(). They may publish, and must not
    /// connect, disconnect or destroy the client, or throw.
    struct Handlers {
        std::function<void()> onConnected = [] {}; ///< and subscribed
        std::function<void(const Publication&)> onMessage = [](const Publication&) {};
        std::function<void(int number)> onAcknowledged = [](int) {};
        std::function<void(const std::string& topic)> onNotSubscribed = [](const std::string&) {};
    };

    /// @param id  the client's; a broker has one client of an ID
    MqttClient(BrokerSettings settings, std::string id, std::vector<std::string> subscriptions, Handlers handlers);
    ~MqttClient();
    MqttClient(const MqttClient&) = delete;
    MqttClient& operator=(const MqttClient&) = delete;

    /// What the broker publishes, retained, when this connection ends without a disconnect().
    void setWill(const std::string& topic, const std::string& payload);

    /// Whether retained messages are delivered on a subscription. None by default.
    void wantRetained() { retained_ = true; }

    /// Begins to connect; ends a connection that there is.
    /// @return why it cannot even begin; empty: it has begun
    std::string connect();

    /// -1: no connection, none that has begun either.
    int fd() const;
    bool wantsWrite() const;
    bool isConnected() const { return connected_; }

    /// @param events  as poll(2) tells them
    /// @return why there is no connection any more; empty: there is
    std::string onReady(short events);

    /// Keeps the connection alive; to be called every few seconds, a quarter of keep_alive at most.
    /// @return as onReady()
    std::string onTime();

    /// @return the message's number, which onAcknowledged() gets; 0: the broker cannot take this
    ///         message; nothing: there is no connection
    std::optional<int> publish(const Publication& message, int qos);

    /// Says good-bye: the will is not published.
    void disconnect();

    /// Ends a connection without a word.
    void drop();

private:
    struct Free {
        void operator()(mosquitto* handle) const;
    };
    struct Callbacks; ///< what libmosquitto calls

    std::string prepare();
    std::string setTls();
    void setTimeLimit() const;
    bool wasRefused(short events);
    std::string whyEnded(int result);
    void later(std::function<void()> action);
    void runLater();
    void subscribe();
    void onSubscribed(const std::vector<int>& results);

    BrokerSettings settings_;
    std::string id_;
    std::vector<std::string> subscriptions_;
    Handlers handlers_;
    std::string willTopic_;
    std::string willPayload_;
    bool retained_ = false;
    bool connected_ = false;
    std::string lastError_;                    ///< as libmosquitto has logged it, or the broker has said it
    std::vector<std::function<void()>> later_; ///< what libmosquitto's callbacks want done
    std::unique_ptr<mosquitto, Free> handle_;
};
