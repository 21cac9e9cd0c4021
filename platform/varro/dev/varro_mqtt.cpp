// Development backend of the broker client over MQTT (libmosquitto), used
// when VARRO_MQTT_URL names a broker:
//   VARRO_MQTT_URL       mqtt://host[:port] (1883), or mqtts://host[:port] (8883)
//   VARRO_MQTT_USERNAME, VARRO_MQTT_PASSWORD   credentials, optional
//   VARRO_MQTT_CAFILE    CA certificate for mqtts, optional
//   VARRO_MQTT_QOS       QoS of data items, 0 (default) to 2
// A topic "T" keeps its definition as the retained message "T/$definition",
// each instance key as "T/$instances/<source>", and each data item is
// published, retained, on "T/<source>". libmosquitto's loop thread keeps the
// connection and reconnects; publishing never waits for the broker.

#include "varro_mqtt.h"

#include <mosquitto.h>
#include <unistd.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <set>

namespace tessel_os_varro {
namespace {

using namespace std::chrono_literals;

constexpr auto CONNECT_WAIT = 5s;
constexpr auto ACK_WAIT = 2s;
constexpr auto RETAINED_WAIT = 200ms;

std::string env(const char* name) {
    const char* value = getenv(name);
    return value ? value : "";
}

struct settings_t {
    std::string host;
    int port = 1883;
    bool tls = false;
    std::string username, password, cafile;
    int qos = 0;
};

std::optional<settings_t> parse_settings(const std::string& url) {
    settings_t s;
    std::string rest;
    if (url.rfind("mqtt://", 0) == 0) {
        rest = url.substr(7);
    } else if (url.rfind("mqtts://", 0) == 0) {
        rest = url.substr(8);
        s.tls = true;
        s.port = 8883;
    } else {
        return std::nullopt;
    }
    if (size_t colon = rest.rfind(':'); colon != std::string::npos) {
        s.port = atoi(rest.c_str() + colon + 1);
        rest.resize(colon);
    }
    if (rest.empty() || s.port <= 0 || s.port > 65535) {
        return std::nullopt;
    }
    s.host = rest;
    s.username = env("VARRO_MQTT_USERNAME");
    s.password = env("VARRO_MQTT_PASSWORD");
    s.cafile = env("VARRO_MQTT_CAFILE");
    s.qos = std::clamp(atoi(env("VARRO_MQTT_QOS").c_str()), 0, 2);
    return s;
}

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
    MqttClient(const std::string& name, settings_t settings) : settings_(std::move(settings)) {
        static std::once_flag initialised;
        std::call_once(initialised, [] { mosquitto_lib_init(); });
        // Client ids must be unique on a broker, which disconnects the older
        // of two clients with the same id.
        static std::atomic<int> clients{0};
        std::string id = (name.empty() ? std::string("varro") : name) + "-" +
                         std::to_string(getpid()) + "-" + std::to_string(++clients);
        mosq_ = mosquitto_new(id.c_str(), true, this);
        if (mosq_) {
            mosquitto_connect_callback_set(mosq_, on_connect);
            mosquitto_disconnect_callback_set(mosq_, on_disconnect);
            mosquitto_message_callback_set(mosq_, on_message);
            mosquitto_subscribe_callback_set(mosq_, on_subscribe);
            mosquitto_publish_callback_set(mosq_, on_publish);
            mosquitto_reconnect_delay_set(mosq_, 1, 10, false);
        }
    }

    ~MqttClient() override {
        if (!mosq_) {
            return;
        }
        // The loop thread ends by itself once disconnecting; cancelling it
        // instead could leave one of libmosquitto's mutexes locked.
        mosquitto_disconnect(mosq_);
        mosquitto_loop_stop(mosq_, false);
        mosquitto_destroy(mosq_);
    }

    Result<void> Connect() override {
        if (!mosq_) {
            return MakeError(ApiErrorCode::Unknown, "cannot create an MQTT client");
        }
        if (!settings_.username.empty()) {
            mosquitto_username_pw_set(
                mosq_, settings_.username.c_str(),
                settings_.password.empty() ? nullptr : settings_.password.c_str());
        }
        if (settings_.tls) {
            int rc = mosquitto_tls_set(
                mosq_, settings_.cafile.empty() ? nullptr : settings_.cafile.c_str(),
                settings_.cafile.empty() ? "/etc/ssl/certs" : nullptr, nullptr, nullptr, nullptr);
            if (rc != MOSQ_ERR_SUCCESS) {
                return MakeError(ApiErrorCode::InvalidArgument,
                                 std::string("TLS set-up failed: ") + mosquitto_strerror(rc));
            }
        }
        int rc = mosquitto_connect_async(mosq_, settings_.host.c_str(), settings_.port, 30);
        if (rc == MOSQ_ERR_SUCCESS) {
            rc = mosquitto_loop_start(mosq_);
        }
        if (rc != MOSQ_ERR_SUCCESS) {
            return MakeError(
                ApiErrorCode::NotConnected,
                "cannot reach the MQTT broker at " + address() + ": " + mosquitto_strerror(rc));
        }
        std::unique_lock lock(mutex_);
        if (!changed_.wait_for(lock, CONNECT_WAIT, [&] { return connack_ >= 0; })) {
            return MakeError(ApiErrorCode::NotConnected,
                             "no answer from the MQTT broker at " + address());
        }
        if (connack_ == 4 || connack_ == 5) {
            return MakeError(ApiErrorCode::PermissionDenied,
                             "the MQTT broker at " + address() + " refused the credentials");
        }
        if (connack_ != 0) {
            return MakeError(ApiErrorCode::NotConnected,
                             "the MQTT broker at " + address() +
                                 " refused the connection: " + mosquitto_connack_string(connack_));
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
        int mid = 0;
        int rc = publish(&mid, name + "/$definition", definition, 1);
        std::unique_lock lock(mutex_);
        if (rc != MOSQ_ERR_SUCCESS || !wait_for_ack(lock, mid)) {
            return MakeError(ApiErrorCode::IoError,
                             "the MQTT broker did not take the definition of '" + name + "'");
        }
        definitions_[name] = definition;
        return Topic(name);
    }

    Result<std::unique_ptr<TopicDataWriter>> CreateTopicDataWriter(const std::string&) override {
        return std::make_unique<MqttWriter>(*this);
    }

    int publish(int* mid, const std::string& topic, const std::string& payload, int qos) {
        return mosquitto_publish(mosq_, mid, topic.c_str(), static_cast<int>(payload.size()),
                                 payload.data(), qos, true);
    }
    int data_qos() const { return settings_.qos; }

private:
    bool wait_for_ack(std::unique_lock<std::mutex>& lock, int mid) {
        bool acked = changed_.wait_for(lock, ACK_WAIT, [&] { return acked_.count(mid) > 0; });
        acked_.erase(mid);
        return acked;
    }

    std::string address() const { return settings_.host + ":" + std::to_string(settings_.port); }

    // One log line per change of the connection's state, however many
    // frames are published meanwhile.
    void set_connected(bool connected) {
        if (connected != connected_) {
            connected_ = connected;
            fprintf(stderr,
                    connected ? "<6>varro: connected to the MQTT broker at %s\n"
                              : "<4>varro: lost the MQTT broker at %s; reconnecting\n",
                    address().c_str());
        }
    }

    static void on_connect(mosquitto*, void* self, int rc) {
        auto* c = static_cast<MqttClient*>(self);
        std::lock_guard lock(c->mutex_);
        c->connack_ = rc;
        c->set_connected(rc == 0);
        c->changed_.notify_all();
    }
    // rc 0 is our own disconnection, at destruction: nothing was lost.
    static void on_disconnect(mosquitto*, void* self, int rc) {
        auto* c = static_cast<MqttClient*>(self);
        std::lock_guard lock(c->mutex_);
        if (rc != 0) {
            c->set_connected(false);
        }
    }
    static void on_message(mosquitto*, void* self, const mosquitto_message* message) {
        auto* c = static_cast<MqttClient*>(self);
        std::string topic = message->topic;
        const std::string suffix = "/$definition";
        if (message->payloadlen <= 0 || topic.size() <= suffix.size() ||
            topic.compare(topic.size() - suffix.size(), suffix.size(), suffix) != 0) {
            return;
        }
        std::lock_guard lock(c->mutex_);
        c->definitions_[topic.substr(0, topic.size() - suffix.size())] = std::string(
            static_cast<const char*>(message->payload), static_cast<size_t>(message->payloadlen));
        c->changed_.notify_all();
    }
    static void acknowledge(void* self, int mid) {
        auto* c = static_cast<MqttClient*>(self);
        std::lock_guard lock(c->mutex_);
        // Acknowledgements nobody waits for (data items of QoS 1 or 2) must
        // not pile up.
        if (c->acked_.size() > 256) {
            c->acked_.erase(c->acked_.begin());
        }
        c->acked_.insert(mid);
        c->changed_.notify_all();
    }
    static void on_subscribe(mosquitto*, void* self, int mid, int, const int*) {
        acknowledge(self, mid);
    }
    static void on_publish(mosquitto*, void* self, int mid) { acknowledge(self, mid); }

    settings_t settings_;
    mosquitto* mosq_ = nullptr;
    std::mutex mutex_;
    std::condition_variable changed_;
    int connack_ = -1;
    bool connected_ = false;
    std::map<std::string, std::string> definitions_;
    std::set<int> acked_;
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
    int rc = client_.publish(nullptr, topic_ + "/$instances/" + source, instance.Key(), 1);
    if (rc != MOSQ_ERR_SUCCESS && rc != MOSQ_ERR_NO_CONN) {
        return MakeError(ApiErrorCode::IoError,
                         std::string("cannot publish the instance key: ") + mosquitto_strerror(rc));
    }
    return {};
}

Result<void> MqttWriter::WriteData(const TopicData& data,
                                   std::optional<std::chrono::system_clock::time_point>) {
    if (data_topic_.empty()) {
        return MakeError(ApiErrorCode::InvalidArgument, "no instance of topic '" + topic_ + "'");
    }
    int rc = client_.publish(nullptr, data_topic_, data.Json(), client_.data_qos());
    // While the broker is away items are dropped; the client has said so once.
    if (rc != MOSQ_ERR_SUCCESS && rc != MOSQ_ERR_NO_CONN) {
        return MakeError(ApiErrorCode::IoError, std::string("cannot publish to '") + data_topic_ +
                                                    "': " + mosquitto_strerror(rc));
    }
    return {};
}

}  // namespace

std::unique_ptr<Client> create_mqtt_client(const std::string& name, const std::string& url) {
    std::optional<settings_t> settings = parse_settings(url);
    if (!settings) {
        fprintf(stderr, "<3>varro: VARRO_MQTT_URL is not an mqtt:// or mqtts:// address: %s\n",
                url.c_str());
        return nullptr;
    }
    return std::make_unique<MqttClient>(name, std::move(*settings));
}

}  // namespace tessel_os_varro
