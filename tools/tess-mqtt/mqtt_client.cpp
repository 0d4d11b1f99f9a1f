#include "tools/tess-mqtt/mqtt_client.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr std::uint32_t MOST_PACKET_BYTES = 65536; // the broker must not send us more
constexpr int UNANSWERED_MS = 5'000;               // then what was sent counts as lost, and the connection with it
constexpr int FIRST_ERROR = 128;                   // of the reason codes
constexpr int SEND_NO_RETAINED = 0x20;             // of the options of a subscription

/// A list of properties to be sent.
class Properties {
public:
    Properties() = default;
    ~Properties() { mosquitto_property_free_all(&list_); }
    Properties(const Properties&) = delete;
    Properties& operator=(const Properties&) = delete;

    /// What has no place in the list is left out.
    void add(const Publication& message)
    {
        if (message.responseTopic)
            (void)mosquitto_property_add_string(&list_, MQTT_PROP_RESPONSE_TOPIC, message.responseTopic->c_str());
        if (message.correlation)
            (void)mosquitto_property_add_binary(&list_, MQTT_PROP_CORRELATION_DATA, message.correlation->data(),
                                                static_cast<std::uint16_t>(message.correlation->size()));
        if (message.expiry)
            (void)mosquitto_property_add_int32(&list_, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, *message.expiry);
        for (const auto& [name, value] : message.user)
            (void)mosquitto_property_add_string_pair(&list_, MQTT_PROP_USER_PROPERTY, name.c_str(), value.c_str());
    }

    void addMostBytes(std::uint32_t bytes)
    {
        (void)mosquitto_property_add_int32(&list_, MQTT_PROP_MAXIMUM_PACKET_SIZE, bytes);
    }

    const mosquitto_property* list() const { return list_; }

private:
    mosquitto_property* list_ = nullptr;
};

struct FreeMemory {
    void operator()(void* memory) const { std::free(memory); }
};
using Bytes = std::unique_ptr<void, FreeMemory>;

std::optional<std::string> bytesOf(const mosquitto_property* list, int identifier)
{
    void* bytes = nullptr;
    std::uint16_t length = 0;
    if (mosquitto_property_read_binary(list, identifier, &bytes, &length, false) == nullptr) return std::nullopt;
    const Bytes owned(bytes);
    return std::string(static_cast<const char*>(bytes), bytes == nullptr ? 0 : length);
}

std::optional<std::string> textOf(const mosquitto_property* list, int identifier)
{
    char* text = nullptr;
    if (mosquitto_property_read_string(list, identifier, &text, false) == nullptr) return std::nullopt;
    const Bytes owned(text);
    return std::string(text == nullptr ? "" : text);
}

void readUserProperties(const mosquitto_property* list, Publication& to)
{
    char* name = nullptr;
    char* value = nullptr;
    bool isNext = false;
    while ((list = mosquitto_property_read_string_pair(list, MQTT_PROP_USER_PROPERTY, &name, &value, isNext)) !=
           nullptr) {
        const Bytes ownedName(name);
        const Bytes ownedValue(value);
        to.user.emplace_back(name, value);
        isNext = true;
    }
}

Publication publicationOf(const mosquitto_message& message, const mosquitto_property* list)
{
    Publication publication{.topic = message.topic, .payload = {}, .retained = message.retain};
    if (message.payloadlen > 0)
        publication.payload.assign(static_cast<const char*>(message.payload),
                                   static_cast<std::size_t>(message.payloadlen));
    publication.responseTopic = textOf(list, MQTT_PROP_RESPONSE_TOPIC);
    publication.correlation = bytesOf(list, MQTT_PROP_CORRELATION_DATA);
    std::uint32_t expiry = 0;
    if (mosquitto_property_read_int32(list, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, &expiry, false) != nullptr)
        publication.expiry = expiry;
    readUserProperties(list, publication);
    return publication;
}

std::string failureText(int result)
{
    return result == MOSQ_ERR_ERRNO ? std::strerror(errno) : mosquitto_strerror(result);
}

} // namespace

/// Nothing of what is done here throws but for want of memory, which ends the program.
struct MqttClient::Callbacks {
    static void onConnect(mosquitto*, void* self, int reason, int, const mosquitto_property*) noexcept
    {
        auto& client = *static_cast<MqttClient*>(self);
        if (reason == 0) return client.later([&client] { client.subscribe(); });
        client.lastError_ = std::string("the broker refuses: ") + mosquitto_reason_string(reason);
    }

    static void onSubscribe(mosquitto*, void* self, int, int count, const int* granted,
                            const mosquitto_property*) noexcept
    {
        auto& client = *static_cast<MqttClient*>(self);
        const std::vector<int> results(granted, granted + count);
        client.later([&client, results] { client.onSubscribed(results); });
    }

    static void onMessage(mosquitto*, void* self, const mosquitto_message* message,
                          const mosquitto_property* list) noexcept
    {
        auto& client = *static_cast<MqttClient*>(self);
        client.later(
            [&client, publication = publicationOf(*message, list)] { client.handlers_.onMessage(publication); });
    }

    static void onPublish(mosquitto*, void* self, int number, int, const mosquitto_property*) noexcept
    {
        auto& client = *static_cast<MqttClient*>(self);
        client.later([&client, number] { client.handlers_.onAcknowledged(number); });
    }

    static void onDisconnect(mosquitto*, void* self, int reason, const mosquitto_property*) noexcept
    {
        auto& client = *static_cast<MqttClient*>(self);
        if (reason >= FIRST_ERROR && client.lastError_.empty())
            client.lastError_ = std::string("the broker ends it: ") + mosquitto_reason_string(reason);
    }

    static void onLog(mosquitto*, void* self, int level, const char* text) noexcept
    {
        if (level == MOSQ_LOG_ERR) static_cast<MqttClient*>(self)->lastError_ = text;
    }
};

void MqttClient::Free::operator()(mosquitto* handle) const
{
    mosquitto_destroy(handle);
}

MqttClient::MqttClient(BrokerSettings settings, std::string id, std::vector<std::string> subscriptions,
                       Handlers handlers)
    : settings_(std::move(settings)), id_(std::move(id)), subscriptions_(std::move(subscriptions)),
      handlers_(std::move(handlers))
{
    (void)mosquitto_lib_init(); // always 0; it counts
}

MqttClient::~MqttClient()
{
    handle_.reset();
    (void)mosquitto_lib_cleanup();
}

void MqttClient::setWill(const std::string& topic, const std::string& payload)
{
    willTopic_ = topic;
    willPayload_ = payload;
}

std::string MqttClient::setTls()
{
    if (settings_.plain) return {};
    if (!settings_.psk.empty()) {
        const int result =
            mosquitto_tls_psk_set(handle_.get(), settings_.psk.c_str(), settings_.pskIdentity.c_str(), nullptr);
        return result == MOSQ_ERR_SUCCESS ? std::string() : "psk: " + failureText(result);
    }
    std::string problem = unreadableFile(settings_);
    if (!problem.empty()) return problem;
    const std::string trusted = settings_.trusted();
    struct stat found {};
    const bool isFolder = ::stat(trusted.c_str(), &found) == 0 && S_ISDIR(found.st_mode);
    const auto orNull = [](const std::string& text) { return text.empty() ? nullptr : text.c_str(); };
    const int result =
        mosquitto_tls_set(handle_.get(), isFolder ? nullptr : trusted.c_str(), isFolder ? trusted.c_str() : nullptr,
                          orNull(settings_.certificate), orNull(settings_.key), nullptr);
    if (result == MOSQ_ERR_SUCCESS) return {};
    return "'ca', 'certificate' or 'key' cannot be read: " + failureText(result);
}

std::string MqttClient::prepare()
{
    mosquitto* const handle = handle_.get();
    (void)mosquitto_int_option(handle, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    (void)mosquitto_int_option(handle, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_connect_v5_callback_set(handle, Callbacks::onConnect);
    mosquitto_disconnect_v5_callback_set(handle, Callbacks::onDisconnect);
    mosquitto_subscribe_v5_callback_set(handle, Callbacks::onSubscribe);
    mosquitto_message_v5_callback_set(handle, Callbacks::onMessage);
    mosquitto_publish_v5_callback_set(handle, Callbacks::onPublish);
    mosquitto_log_callback_set(handle, Callbacks::onLog);
    if (!settings_.user.empty())
        (void)mosquitto_username_pw_set(handle, settings_.user.c_str(),
                                        settings_.password.empty() ? nullptr : settings_.password.c_str());
    if (!willTopic_.empty())
        (void)mosquitto_will_set_v5(handle, willTopic_.c_str(), static_cast<int>(willPayload_.size()),
                                    willPayload_.data(), 1, true, nullptr);
    // The call that connects without waiting takes no properties, but those of the last other call;
    // this one fails for want of a host, after it has noted them.
    Properties properties;
    properties.addMostBytes(MOST_PACKET_BYTES);
    (void)mosquitto_connect_bind_v5(handle, nullptr, 1, 60, nullptr, properties.list());
    return setTls();
}

std::string MqttClient::connect()
{
    drop();
    lastError_.clear();
    handle_.reset(mosquitto_new(id_.c_str(), true, this));
    if (handle_ == nullptr) return std::strerror(errno);
    std::string problem = prepare();
    if (!problem.empty()) return problem;
    const int result =
        mosquitto_connect_bind_async(handle_.get(), settings_.host.c_str(), static_cast<int>(settings_.portOrDefault()),
                                     static_cast<int>(settings_.keepAlive), nullptr);
    if (result != MOSQ_ERR_SUCCESS) return whyEnded(result);
    setTimeLimit();
    return {};
}

/// A cut cable is found out by what is not acknowledged.
void MqttClient::setTimeLimit() const
{
    (void)::setsockopt(fd(), IPPROTO_TCP, TCP_USER_TIMEOUT, &UNANSWERED_MS, sizeof UNANSWERED_MS);
}

std::string MqttClient::whyEnded(int result)
{
    std::string why = lastError_.empty() ? failureText(result) : lastError_;
    drop();
    return why;
}

void MqttClient::drop()
{
    connected_ = false;
    handle_.reset();
    later_.clear();
}

/// libmosquitto holds locks while it calls back, and takes the same ones again in what a handler
/// would call of it.
void MqttClient::later(std::function<void()> action)
{
    later_.push_back(std::move(action));
}

void MqttClient::runLater()
{
    for (const std::function<void()>& action : std::exchange(later_, {}))
        action();
}

int MqttClient::fd() const
{
    return handle_ == nullptr ? -1 : mosquitto_socket(handle_.get());
}

bool MqttClient::wantsWrite() const
{
    return handle_ != nullptr && mosquitto_want_write(handle_.get());
}

/// A connection that could not even be made. With TLS libmosquitto would not notice, and poll(2)
/// returns at once as long as it is open.
bool MqttClient::wasRefused(short events)
{
    if (connected_ || (events & (POLLERR | POLLHUP)) == 0) return false;
    int error = 0;
    socklen_t length = sizeof error;
    if (::getsockopt(fd(), SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error == 0) return false;
    lastError_ = std::strerror(error);
    return true;
}

std::string MqttClient::onReady(short events)
{
    if (handle_ == nullptr) return {};
    if (wasRefused(events)) return whyEnded(MOSQ_ERR_CONN_REFUSED);
    int result = MOSQ_ERR_SUCCESS;
    // Until it is connected also when it can write: TLS goes on only in that call.
    if ((events & ~POLLOUT) != 0 || !connected_) result = mosquitto_loop_read(handle_.get(), 1);
    runLater(); // also what came before an error
    if (result == MOSQ_ERR_SUCCESS && ((events & POLLOUT) != 0 || wantsWrite()))
        result = mosquitto_loop_write(handle_.get(), 1);
    runLater();
    const bool isRefused = !connected_ && (events & (POLLERR | POLLHUP)) != 0;
    if (result == MOSQ_ERR_SUCCESS && isRefused) result = MOSQ_ERR_CONN_REFUSED;
    if (result == MOSQ_ERR_SUCCESS && fd() < 0) result = MOSQ_ERR_CONN_LOST;
    return result == MOSQ_ERR_SUCCESS ? std::string() : whyEnded(result);
}

std::string MqttClient::onTime()
{
    if (handle_ == nullptr) return {};
    int result = mosquitto_loop_misc(handle_.get());
    if (result == MOSQ_ERR_SUCCESS && fd() < 0) result = MOSQ_ERR_CONN_LOST;
    return result == MOSQ_ERR_SUCCESS ? std::string() : whyEnded(result);
}

void MqttClient::onSubscribed(const std::vector<int>& results)
{
    for (std::size_t i = 0; i < std::min(results.size(), subscriptions_.size()); ++i)
        if (results[i] >= FIRST_ERROR) handlers_.onNotSubscribed(subscriptions_[i]);
    if (std::exchange(connected_, true)) return; // one is sent; a broker may answer it twice all the same
    handlers_.onConnected();
}

void MqttClient::subscribe()
{
    std::vector<char*> topics;
    for (std::string& topic : subscriptions_)
        topics.push_back(topic.data());
    const int options = retained_ ? 0 : SEND_NO_RETAINED;
    (void)mosquitto_subscribe_multiple(handle_.get(), nullptr, static_cast<int>(topics.size()), topics.data(), 1,
                                       options, nullptr);
}

std::optional<int> MqttClient::publish(const Publication& message, int qos)
{
    if (!connected_) return std::nullopt;
    Properties properties;
    properties.add(message);
    int number = 0;
    const int result =
        mosquitto_publish_v5(handle_.get(), &number, message.topic.c_str(), static_cast<int>(message.payload.size()),
                             message.payload.data(), qos, message.retained, properties.list());
    if (result == MOSQ_ERR_SUCCESS) return number;
    const bool isLost = result == MOSQ_ERR_NO_CONN || result == MOSQ_ERR_CONN_LOST || result == MOSQ_ERR_NOMEM;
    return isLost ? std::nullopt : std::optional(0);
}

void MqttClient::disconnect()
{
    if (handle_ != nullptr) (void)mosquitto_disconnect_v5(handle_.get(), 0, nullptr);
    drop();
}
