// Development backend of the broker client over MQTT 5 (libmosquitto), used
// when VARRO_MQTT_URL names a broker; README's "Device libraries" lists the
// variables. A topic "T" keeps its definition as the retained message
// "T/$definition", each instance key as "T/$instances/<source>", and each
// data item is published, retained, on "T/<source>" with QoS 1 or 2: the
// broker's acknowledgements name the topics it refuses and bound the items
// in flight. A thread of the client's own keeps the connection, reconnects
// with a growing delay and publishes the definitions and instance keys
// again. Publishing never waits for the broker: while it is away, or while
// too many items await its acknowledgement, items are dropped and counted.

#include "varro_mqtt.h"

#include "mqtt_deliveries.h"
#include "mqtt_settings.h"
#include "mqtt_tls.h"

#include <openssl/ssl.h>

#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <unistd.h>
#include <nlohmann/json.hpp>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <thread>

namespace tessel_os_varro {
namespace {

using namespace std::chrono_literals;

constexpr auto CONNECT_WAIT = 5s;
constexpr auto ACK_WAIT = 2s;
constexpr auto RETAINED_WAIT = 200ms;
constexpr auto STOP_WAIT = 1s;
constexpr auto ATTEMPT_WAIT = 15s;
constexpr int KEEPALIVE_SECONDS = 20;

const char* const CONNECTED = "connected";

class MqttClient;

class MqttWriter : public TopicDataWriter {
public:
    explicit MqttWriter(MqttClient& client) : client_(client) {}
    Result<void> Initialize(std::string topic) override;
    Result<void> CreateInstance(const TopicInstance& instance, bool replace) override;
    Result<void> WriteData(const TopicData& data,
                           std::optional<std::chrono::system_clock::time_point> time) override;

private:
    MqttClient& client_;
    std::string topic_;
    std::string data_topic_;
};

class MqttClient : public Client {
public:
    MqttClient(const std::string& name, mqtt_settings_t settings)
        : settings_(std::move(settings)), address_(mqtt_settings_address(settings_)) {
        deliveries_.address = address_;
        static std::once_flag initialised;
        std::call_once(initialised, [] { mosquitto_lib_init(); });
        // Client ids must be unique on a broker, which disconnects the older
        // of two clients with the same id.
        static std::atomic<int> clients{0};
        std::string id = (name.empty() ? std::string("varro") : name) + "-" +
                         std::to_string(getpid()) + "-" + std::to_string(++clients);
        mosq_ = mosquitto_new(id.c_str(), true, this);
        if (mosq_) {
            mosquitto_int_option(mosq_, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
            mosquitto_threaded_set(mosq_, true);
            mosquitto_connect_v5_callback_set(mosq_, on_connect);
            mosquitto_disconnect_v5_callback_set(mosq_, on_disconnect);
            mosquitto_message_callback_set(mosq_, on_message);
            mosquitto_subscribe_callback_set(mosq_, on_subscribe);
            mosquitto_publish_v5_callback_set(mosq_, on_publish);
            mosquitto_log_callback_set(mosq_, on_log);
        }
    }

    ~MqttClient() override {
        if (thread_.joinable()) {
            {
                std::lock_guard lock(mutex_);
                stop_by_ = std::chrono::steady_clock::now() + STOP_WAIT;
                stopping_ = true;
                changed_.notify_all();
            }
            mosquitto_disconnect(mosq_);
            thread_.join();
            report_drops();
        }
        if (mosq_) {
            mosquitto_destroy(mosq_);
        }
    }

    Result<void> Connect() override {
        if (!mosq_) {
            return MakeError(ApiErrorCode::Unknown, "cannot create an MQTT client");
        }
        if (thread_.joinable()) {
            return MakeError(ApiErrorCode::AlreadyExists, "already connecting to " + address_);
        }
        if (settings_.tls) {
            auto tls = mqtt_tls_create(settings_);
            if (!tls) {
                return MakeError(ApiErrorCode::InvalidArgument, tls.error());
            }
            tls_ = std::move(*tls);
            mosquitto_int_option(mosq_, MOSQ_OPT_SSL_CTX_WITH_DEFAULTS, 0);
            mosquitto_void_option(mosq_, MOSQ_OPT_SSL_CTX, tls_.get());
        }
        if (!settings_.username.empty()) {
            mosquitto_username_pw_set(
                mosq_, settings_.username.c_str(),
                settings_.password.empty() ? nullptr : settings_.password.c_str());
        }
        thread_ = std::thread(&MqttClient::run, this);
        std::unique_lock lock(mutex_);
        if (!changed_.wait_for(lock, CONNECT_WAIT, [&] { return !state_.empty(); })) {
            return MakeError(ApiErrorCode::NotConnected,
                             "no answer from the MQTT broker at " + address_);
        }
        if (state_ != CONNECTED) {
            return std::unexpected(failure_);
        }
        return {};
    }

    Result<Topic> GetTopic(const std::string& name) override {
        std::string subscription = name + "/$definition";
        int mid = 0;
        int rc = mosquitto_subscribe(mosq_, &mid, subscription.c_str(), 1);
        if (rc != MOSQ_ERR_SUCCESS) {
            return MakeError(ApiErrorCode::NotConnected, "cannot ask the MQTT broker for topic '" +
                                                             name + "': " + mosquitto_strerror(rc));
        }
        std::unique_lock lock(mutex_);
        if (!wait_for_ack(lock, mid)) {
            return MakeError(ApiErrorCode::Timeout,
                             "the MQTT broker did not answer for topic '" + name + "'");
        }
        // A retained definition follows the acknowledgement at once.
        changed_.wait_for(lock, RETAINED_WAIT, [&] { return definitions_.count(name) > 0; });
        if (!definitions_.count(name)) {
            return MakeError(ApiErrorCode::NotFound, "Topic '" + name + "' does not exist");
        }
        return Topic(name);
    }

    Result<Topic> CreateTopic(const std::string& definition) override {
        nlohmann::json parsed = nlohmann::json::parse(definition, nullptr, false);
        if (parsed.is_discarded() || !parsed.contains("topic_name") ||
            !parsed["topic_name"].is_string()) {
            return MakeError(ApiErrorCode::InvalidArgument, "invalid topic definition");
        }
        std::string name = parsed["topic_name"].get<std::string>();
        std::string topic = name + "/$definition";
        int mid = 0;
        int rc = publish(&mid, topic, definition, 1);
        std::unique_lock lock(mutex_);
        std::optional<int> reason;
        if (rc == MOSQ_ERR_SUCCESS) {
            reason = wait_for_ack(lock, mid);
        }
        if (!reason || *reason >= 0x80) {
            return MakeError(ApiErrorCode::IoError,
                             "the MQTT broker did not take the definition of '" + name + "'" +
                                 (reason ? std::string(": ") + mosquitto_reason_string(*reason)
                                         : std::string()));
        }
        definitions_[name] = definition;
        retained_[topic] = definition;
        return Topic(name);
    }

    Result<std::unique_ptr<TopicDataWriter>> CreateTopicDataWriter(const std::string&) override {
        return std::make_unique<MqttWriter>(*this);
    }

    // An instance key, published now where the broker is there and again
    // after every reconnection.
    Result<void> publish_key(const std::string& topic, const std::string& key) {
        {
            std::lock_guard lock(mutex_);
            retained_[topic] = key;
        }
        int mid = 0;
        int rc = publish(&mid, topic, key, 1);
        if (rc == MOSQ_ERR_SUCCESS) {
            sent(mid, "");
        } else if (rc != MOSQ_ERR_NO_CONN) {
            return MakeError(
                ApiErrorCode::IoError,
                std::string("cannot publish the instance key: ") + mosquitto_strerror(rc));
        }
        return {};
    }

    int publish_item(const std::string& topic, const std::string& payload) {
        {
            std::lock_guard lock(mutex_);
            if (!mqtt_deliveries_admit(deliveries_, state_ == CONNECTED)) {
                return MOSQ_ERR_SUCCESS;
            }
        }
        int mid = 0;
        int rc = publish(&mid, topic, payload, settings_.qos);
        if (rc == MOSQ_ERR_SUCCESS) {
            sent(mid, topic);
        } else if (rc == MOSQ_ERR_NO_CONN) {
            std::lock_guard lock(mutex_);
            mqtt_deliveries_admit(deliveries_, false);
            rc = MOSQ_ERR_SUCCESS;
        }
        return rc;
    }

private:
    int publish(int* mid, const std::string& topic, const std::string& payload, int qos) {
        return mosquitto_publish(mosq_, mid, topic.c_str(), static_cast<int>(payload.size()),
                                 payload.data(), qos, true);
    }

    void sent(int mid, const std::string& topic) {
        std::lock_guard lock(mutex_);
        mqtt_deliveries_sent(deliveries_, mid, topic);
    }

    std::optional<int> wait_for_ack(std::unique_lock<std::mutex>& lock, int mid) {
        std::optional<int> reason;
        changed_.wait_for(lock, ACK_WAIT, [&] {
            return (reason = mqtt_deliveries_take(deliveries_, mid)).has_value();
        });
        return reason;
    }

    // The connection's thread: one attempt after the other until the
    // client is destroyed, each waiting longer than the one before while
    // none succeeds.
    void run() {
        std::mt19937 random(std::random_device{}());
        int failures = 0;
        while (!stopping_) {
            mqtt_tls_take_refusal();
            {
                std::lock_guard lock(mutex_);
                connack_ = 0;
                disconnect_reason_ = 0;
                tls_error_.clear();
            }
            int rc = mosquitto_connect_async(mosq_, settings_.host.c_str(), settings_.port,
                                             KEEPALIVE_SECONDS);
            int error = errno;
            auto attempt_by = std::chrono::steady_clock::now() + ATTEMPT_WAIT;
            while (rc == MOSQ_ERR_SUCCESS && !stopped()) {
                rc = mosquitto_loop(mosq_, 100, 1);
                error = errno;
                if (rc == MOSQ_ERR_SUCCESS && (error = unanswered(attempt_by))) {
                    rc = MOSQ_ERR_ERRNO;
                }
            }
            if (stopping_) {
                break;
            }
            failures = ended(rc, error) ? 0 : failures + 1;
            auto delay = mqtt_settings_reconnect_delay(
                settings_, failures, std::uniform_real_distribution<double>(0, 1)(random));
            std::unique_lock lock(mutex_);
            changed_.wait_for(lock, delay, [&] { return stopping_.load(); });
        }
    }

    // Why an attempt that has not connected yet is over, or 0. libmosquitto
    // keeps retrying a TLS handshake on a socket whose connection was
    // refused, so the socket's own state tells, as long as the broker has
    // not answered the handshake (after that, its alerts say more).
    int unanswered(std::chrono::steady_clock::time_point attempt_by) {
        {
            std::lock_guard lock(mutex_);
            if (state_ == CONNECTED) {
                return 0;
            }
        }
        auto* ssl = static_cast<SSL*>(mosquitto_ssl_get(mosq_));
        OSSL_HANDSHAKE_STATE handshake = ssl ? SSL_get_state(ssl) : TLS_ST_OK;
        tcp_info info{};
        socklen_t size = sizeof(info);
        int fd = mosquitto_socket(mosq_);
        if ((handshake == TLS_ST_BEFORE || handshake == TLS_ST_CW_CLNT_HELLO) && fd >= 0 &&
            getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &size) == 0 &&
            info.tcpi_state == TCP_CLOSE) {
            return ECONNREFUSED;
        }
        return std::chrono::steady_clock::now() > attempt_by ? ETIMEDOUT : 0;
    }

    bool stopped() {
        std::lock_guard lock(mutex_);
        return stopping_ && std::chrono::steady_clock::now() > stop_by_;
    }

    // The end of an attempt or of a connection: says why, once per change
    // of state, and whether the client had been connected.
    bool ended(int rc, int error) {
        std::string refusal = mqtt_tls_take_refusal();
        std::lock_guard lock(mutex_);
        bool was_connected = state_ == CONNECTED;
        mqtt_deliveries_lost(deliveries_);
        if (connack_ == MQTT_RC_BAD_USERNAME_OR_PASSWORD || connack_ == MQTT_RC_NOT_AUTHORIZED) {
            report("refused", 3, ApiErrorCode::PermissionDenied,
                   "the MQTT broker at " + address_ +
                       " refused the credentials: " + mosquitto_reason_string(connack_));
        } else if (connack_ != 0) {
            report("refused", 3, ApiErrorCode::NotConnected,
                   "the MQTT broker at " + address_ +
                       " refused the connection: " + mosquitto_reason_string(connack_));
        } else if (!refusal.empty() || !tls_error_.empty()) {
            report("tls", 3, ApiErrorCode::NotConnected,
                   "TLS with the MQTT broker at " + address_ + " failed: " +
                       (refusal.empty() ? tls_error_ : refusal) + "; nothing is sent to it");
        } else {
            std::string why =
                disconnect_reason_ >= 0x80
                    ? mosquitto_reason_string(disconnect_reason_)
                    : (rc == MOSQ_ERR_ERRNO ? strerror(error) : mosquitto_strerror(rc));
            report("away", 4, ApiErrorCode::NotConnected,
                   was_connected ? "lost the MQTT broker at " + address_ + " (" + why +
                                       "); items are dropped until it is back"
                                 : "cannot reach the MQTT broker at " + address_ + ": " + why);
        }
        return was_connected;
    }

    // One log line per change of state; the failure is what Connect gives.
    void report(const std::string& state, int level, ApiErrorCode code,
                const std::string& message) {
        // Whatever the network's error, the broker is away; a refusal is a
        // new state when its reason changes.
        std::string key = state == "refused" || state == "tls" ? state + ": " + message : state;
        if (key != state_) {
            fprintf(stderr, "<%d>varro: %s\n", level, message.c_str());
        }
        state_ = key;
        failure_ = {code, message};
        changed_.notify_all();
    }

    void connected() {
        std::map<std::string, std::string> retained;
        {
            std::lock_guard lock(mutex_);
            std::string message = "connected to the MQTT broker at " + address_;
            if (ever_connected_) {
                message += " again; " + std::to_string(mqtt_deliveries_back(deliveries_)) +
                           " data items were dropped while it was away";
            }
            ever_connected_ = true;
            report(CONNECTED, 6, ApiErrorCode::Unknown, message);
            retained = retained_;
        }
        // The broker may have lost them (a restart without persistence).
        for (const auto& [topic, payload] : retained) {
            int mid = 0;
            if (publish(&mid, topic, payload, 1) == MOSQ_ERR_SUCCESS) {
                sent(mid, "");
            }
        }
    }

    void report_drops() {
        std::lock_guard lock(mutex_);
        if (std::string summary = mqtt_deliveries_summary(deliveries_); !summary.empty()) {
            fprintf(stderr, "<6>varro: %s\n", summary.c_str());
        }
    }

    static MqttClient& self(void* client) { return *static_cast<MqttClient*>(client); }

    static void on_connect(mosquitto*, void* client, int rc, int, const mosquitto_property*) {
        MqttClient& c = self(client);
        if (rc == 0) {
            c.connected();
            return;
        }
        std::lock_guard lock(c.mutex_);
        c.connack_ = rc;
    }
    static void on_disconnect(mosquitto*, void* client, int rc, const mosquitto_property*) {
        MqttClient& c = self(client);
        std::lock_guard lock(c.mutex_);
        c.disconnect_reason_ = rc;
    }
    // OpenSSL's reason for a failed handshake that was not about the
    // broker's certificate (a client certificate it wants, say).
    static void on_log(mosquitto*, void* client, int level, const char* text) {
        const char* prefix = "OpenSSL Error[0]: ";
        if (level == MOSQ_LOG_ERR && strncmp(text, prefix, strlen(prefix)) == 0) {
            MqttClient& c = self(client);
            std::lock_guard lock(c.mutex_);
            c.tls_error_ = text + strlen(prefix);
        }
    }
    static void on_message(mosquitto*, void* client, const mosquitto_message* message) {
        MqttClient& c = self(client);
        std::string topic = message->topic;
        const std::string suffix = "/$definition";
        if (message->payloadlen <= 0 || !topic.ends_with(suffix)) {
            return;
        }
        std::lock_guard lock(c.mutex_);
        c.definitions_[topic.substr(0, topic.size() - suffix.size())] = std::string(
            static_cast<const char*>(message->payload), static_cast<size_t>(message->payloadlen));
        c.changed_.notify_all();
    }
    static void acknowledge(void* client, int mid, int reason) {
        MqttClient& c = self(client);
        std::lock_guard lock(c.mutex_);
        mqtt_deliveries_answered(c.deliveries_, mid, reason);
        c.changed_.notify_all();
    }
    static void on_subscribe(mosquitto*, void* client, int mid, int, const int*) {
        acknowledge(client, mid, 0);
    }
    static void on_publish(mosquitto*, void* client, int mid, int reason,
                           const mosquitto_property*) {
        acknowledge(client, mid, reason);
    }

    const mqtt_settings_t settings_;
    const std::string address_;
    mqtt_tls_t tls_;
    mosquitto* mosq_ = nullptr;
    std::thread thread_;
    std::atomic<bool> stopping_{false};

    // Guards what follows. Never held while calling into libmosquitto,
    // whose callbacks take it.
    std::mutex mutex_;
    std::condition_variable changed_;
    std::chrono::steady_clock::time_point stop_by_;
    std::string state_;  // empty before the first attempt ends
    Error<ApiErrorCode> failure_{ApiErrorCode::Unknown, ""};
    bool ever_connected_ = false;
    int connack_ = 0;            // of the current attempt
    int disconnect_reason_ = 0;  // of the current attempt
    std::string tls_error_;      // of the current attempt
    std::map<std::string, std::string> definitions_;
    std::map<std::string, std::string> retained_;  // published again on reconnection
    mqtt_deliveries_t deliveries_;
};

Result<void> MqttWriter::Initialize(std::string topic) {
    topic_ = std::move(topic);
    return {};
}

Result<void> MqttWriter::CreateInstance(const TopicInstance& instance, bool) {
    nlohmann::json key = nlohmann::json::parse(instance.Key(), nullptr, false);
    if (instance.TopicName() != topic_ || key.is_discarded() || !key.contains("source")) {
        return MakeError(ApiErrorCode::InvalidArgument,
                         "invalid instance of topic '" + topic_ + "'");
    }
    std::string source =
        key["source"].is_string() ? key["source"].get<std::string>() : key["source"].dump();
    data_topic_ = topic_ + "/" + source;
    return client_.publish_key(topic_ + "/$instances/" + source, instance.Key());
}

Result<void> MqttWriter::WriteData(const TopicData& data,
                                   std::optional<std::chrono::system_clock::time_point>) {
    if (data_topic_.empty()) {
        return MakeError(ApiErrorCode::InvalidArgument, "no instance of topic '" + topic_ + "'");
    }
    // Items dropped while the broker is away or behind are counted, not
    // failed: the client says so once, not per item.
    if (int rc = client_.publish_item(data_topic_, data.Json()); rc != MOSQ_ERR_SUCCESS) {
        return MakeError(ApiErrorCode::IoError, std::string("cannot publish to '") + data_topic_ +
                                                    "': " + mosquitto_strerror(rc));
    }
    return {};
}

}  // namespace

std::unique_ptr<Client> create_mqtt_client(const std::string& name, const std::string& url) {
    auto settings = mqtt_settings_from_env(url);
    if (!settings) {
        fprintf(stderr, "<3>varro: %s\n", settings.error().c_str());
        return nullptr;
    }
    return std::make_unique<MqttClient>(name, std::move(*settings));
}

}  // namespace tessel_os_varro
