// Development backend of the broker client over MQTT 5 (libmosquitto), used
// when VARRO_MQTT_URL names a broker; README's "Device libraries" lists the
// variables. A topic "T" keeps its definition as the retained message
// "T/$definition", each instance key as "T/$instances/<source>", and each
// data item is published, retained, on "T/<source>" with QoS 1 or 2: the
// broker's acknowledgements name the topics it refuses and tell which items
// still await it. A thread of the client's own keeps the connection,
// reconnects with a growing delay and makes every topic known again on each
// connection. Nothing the producer calls waits for the broker: items go
// only while it is connected and knows their topic, and while those that
// await its answer stay within a bound in bytes; others are dropped and
// counted. Every connection is a fresh session on a fresh libmosquitto
// object, so what one connection left unanswered is never sent again.

#include "varro_mqtt.h"

#include "mqtt_deliveries.h"
#include "mqtt_settings.h"
#include "mqtt_tls.h"
#include "mqtt_topics.h"

#include <openssl/ssl.h>

#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <nlohmann/json.hpp>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <thread>

namespace tessel_os_varro {
namespace {

using namespace std::chrono_literals;

constexpr auto RETAINED_WAIT = 200ms;
constexpr auto STOP_WAIT = 1s;
constexpr int LOOP_WAIT_MS = 100;

const char* const CONNECTED = "connected";

// Client ids in use in this process: a second client of the same name gets
// a number after it, so that the two do not take each other's connection.
std::string unique_in_process(const std::string& id) {
    static std::mutex mutex;
    static std::map<std::string, int> used;
    std::lock_guard lock(mutex);
    int n = ++used[id];
    return n == 1 ? id : id + "-" + std::to_string(n);
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
    std::string source_;
    std::string data_topic_;
};

class MqttClient : public Client {
public:
    // A client whose settings could not be used publishes nothing; Connect
    // says why, and its items are counted as dropped.
    explicit MqttClient(std::expected<mqtt_settings_t, std::string> settings)
        : unusable_(settings ? "" : settings.error()),
          settings_(settings ? std::move(*settings) : mqtt_settings_t{}),
          address_(mqtt_settings_address(settings_)) {
        deliveries_.address = address_;
        deliveries_.max_bytes = settings_.max_pending_bytes;
        if (unusable_.empty()) {
            client_id_ = unique_in_process(settings_.client_id);
        }
        static std::once_flag initialised;
        std::call_once(initialised, [] { mosquitto_lib_init(); });
    }

    ~MqttClient() override {
        if (thread_.joinable()) {
            {
                // The broker's answers to the items in flight say which it
                // took; they are waited for, a little.
                std::unique_lock lock(mutex_);
                stop_by_ = std::chrono::steady_clock::now() + STOP_WAIT;
                changed_.wait_until(lock, stop_by_,
                                    [&] { return !connected_ || deliveries_.in_flight.empty(); });
                stopping_ = true;
                changed_.notify_all();
            }
            {
                std::lock_guard lock(object_mutex_);
                if (mosq_) {
                    mosquitto_disconnect(mosq_);
                }
            }
            thread_.join();
        }
        report_drops();
    }

    Result<void> Connect() override {
        if (!unusable_.empty()) {
            return MakeError(ApiErrorCode::InvalidArgument, unusable_);
        }
        if (thread_.joinable()) {
            return MakeError(ApiErrorCode::AlreadyExists, "already connecting to " + address_);
        }
        if (settings_.tls) {
            auto tls = mqtt_tls_create(settings_);
            if (!tls) {
                unusable_ = tls.error();
                return MakeError(ApiErrorCode::InvalidArgument, tls.error());
            }
            tls_ = std::move(*tls);
        }
        thread_ = std::thread(&MqttClient::run, this);
        return {};
    }

    // The broker is not asked here, which would wait for it: a topic is
    // known once registered, and where the broker holds a definition of its
    // own, that one is kept.
    Result<Topic> GetTopic(const std::string& name) override {
        std::lock_guard lock(mutex_);
        if (!mqtt_topics_known(topics_, name)) {
            return MakeError(ApiErrorCode::NotFound, "Topic '" + name + "' does not exist");
        }
        return Topic(name);
    }

    Result<Topic> CreateTopic(const std::string& definition) override {
        nlohmann::json parsed = nlohmann::json::parse(definition, nullptr, false);
        if (parsed.is_discarded() || !parsed.contains("topic_name") ||
            !parsed["topic_name"].is_string() || parsed["topic_name"].get<std::string>().empty()) {
            return MakeError(ApiErrorCode::InvalidArgument, "invalid topic definition");
        }
        std::string name = parsed["topic_name"].get<std::string>();
        std::lock_guard lock(mutex_);
        mqtt_topics_define(topics_, name, definition);
        return Topic(name);
    }

    Result<std::unique_ptr<TopicDataWriter>> CreateTopicDataWriter(const std::string&) override {
        return std::make_unique<MqttWriter>(*this);
    }

    // An instance key, given to the broker on every connection.
    void add_key(const std::string& topic, const std::string& source, const std::string& key) {
        std::lock_guard lock(mutex_);
        mqtt_topics_add_key(topics_, topic, source, key);
    }

    // One data item: handed to libmosquitto, or dropped and counted.
    void publish_item(const std::string& topic, const std::string& source,
                      const std::string& data_topic, const std::string& payload) {
        uint64_t bytes = payload.size() + data_topic.size();
        std::lock_guard object(object_mutex_);
        uint64_t connection = 0;
        uint32_t max_packet = 0;
        {
            std::lock_guard lock(mutex_);
            bool ready = mosq_ && connected_ && mqtt_topics_ready(topics_, topic, source);
            if (!mqtt_deliveries_admit(deliveries_, ready, bytes)) {
                return;
            }
            connection = deliveries_.connection;
            max_packet = max_packet_;
        }
        int mid = 0;
        int rc =
            mosquitto_publish(mosq_, &mid, data_topic.c_str(), static_cast<int>(payload.size()),
                              payload.data(), settings_.qos, true);
        std::lock_guard lock(mutex_);
        if (rc == MOSQ_ERR_SUCCESS) {
            mqtt_deliveries_sent(deliveries_, connection, mid, data_topic, bytes);
        } else {
            mqtt_deliveries_unsent(deliveries_, connection, data_topic, bytes,
                                   rc == MOSQ_ERR_OVERSIZE_PACKET ? std::max(max_packet, 1u) : 0);
        }
    }

private:
    mosquitto* make_object() {
        mosquitto* m = mosquitto_new(client_id_.c_str(), true, this);
        if (!m) {
            return nullptr;
        }
        mosquitto_int_option(m, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
        mosquitto_threaded_set(m, true);
        mosquitto_connect_v5_callback_set(m, on_connect);
        mosquitto_disconnect_v5_callback_set(m, on_disconnect);
        mosquitto_message_callback_set(m, on_message);
        mosquitto_subscribe_callback_set(m, on_subscribe);
        mosquitto_publish_v5_callback_set(m, on_publish);
        mosquitto_log_callback_set(m, on_log);
        if (tls_) {
            mosquitto_int_option(m, MOSQ_OPT_SSL_CTX_WITH_DEFAULTS, 0);
            mosquitto_void_option(m, MOSQ_OPT_SSL_CTX, tls_.get());
        }
        if (!settings_.username.empty()) {
            mosquitto_username_pw_set(
                m, settings_.username.c_str(),
                settings_.password.empty() ? nullptr : settings_.password.c_str());
        }
        return m;
    }

    // The connection's thread: one attempt after the other until the
    // client is destroyed, each waiting longer than the one before while
    // none succeeds.
    void run() {
        std::mt19937 random(std::random_device{}());
        int failures = 0;
        while (!stopping_) {
            failures = attempt() ? 0 : failures + 1;
            if (stopping_) {
                break;
            }
            auto delay = mqtt_settings_reconnect_delay(
                settings_, failures, std::uniform_real_distribution<double>(0, 1)(random));
            std::unique_lock lock(mutex_);
            changed_.wait_for(lock, delay, [&] { return stopping_.load(); });
        }
    }

    // One connection on an object of its own, from the first packet to its
    // end; whether it got as far as being connected.
    bool attempt() {
        mqtt_tls_take_refusal();
        {
            std::lock_guard lock(mutex_);
            connack_ = 0;
            disconnect_reason_ = 0;
            max_packet_ = 0;
            tls_error_.clear();
            refusal_.clear();
        }
        mosquitto* m = make_object();
        if (!m) {
            std::lock_guard lock(mutex_);
            report("away", 4, "cannot create an MQTT client: out of memory");
            return false;
        }
        {
            std::lock_guard lock(object_mutex_);
            mosq_ = m;
        }
        int rc =
            mosquitto_connect_async(m, settings_.host.c_str(), settings_.port, settings_.keepalive);
        int error = errno;
        auto attempt_by =
            std::chrono::steady_clock::now() + std::chrono::seconds(settings_.keepalive);
        // libmosquitto frees the TLS session of a failed attempt: whether
        // the broker finished the handshake is noted while it is there.
        bool handshaken = !settings_.tls;
        while (rc == MOSQ_ERR_SUCCESS && !stopped()) {
            rc = mosquitto_loop(m, LOOP_WAIT_MS, 1);
            auto* ssl = static_cast<SSL*>(mosquitto_ssl_get(m));
            handshaken = handshaken || (ssl && SSL_is_init_finished(ssl));
            error = errno;
            if (rc == MOSQ_ERR_SUCCESS && (error = unanswered(m, attempt_by))) {
                rc = MOSQ_ERR_ERRNO;
            }
            if (rc == MOSQ_ERR_SUCCESS) {
                tend_topics(m);
            }
        }
        bool was_connected = stopping_ ? true : ended(rc, error, handshaken);
        {
            std::lock_guard lock(mutex_);
            connected_ = false;
            mqtt_deliveries_lost(deliveries_);
        }
        {
            std::lock_guard lock(object_mutex_);
            mosq_ = nullptr;
        }
        mosquitto_destroy(m);
        return was_connected;
    }

    // Asks for the definitions of the topics, gives the broker those it
    // lacks and the instance keys, on the connection's own thread.
    void tend_topics(mosquitto* m) {
        mqtt_topics_work_t work;
        {
            std::lock_guard lock(mutex_);
            if (!connected_) {
                return;
            }
            work = mqtt_topics_due(topics_, std::chrono::steady_clock::now(), RETAINED_WAIT);
        }
        for (const std::string& name : work.subscribe) {
            int mid = 0;
            std::string subscription = name + "/$definition";
            if (mosquitto_subscribe(m, &mid, subscription.c_str(), 1) != MOSQ_ERR_SUCCESS) {
                mid = -1;
            }
            std::lock_guard lock(mutex_);
            mqtt_topics_asked(topics_, name, mid);
        }
        for (const auto& retained : work.publish) {
            int mid = 0;
            if (mosquitto_publish(m, &mid, retained.topic.c_str(),
                                  static_cast<int>(retained.payload.size()),
                                  retained.payload.data(), 1, true) == MOSQ_ERR_SUCCESS) {
                std::lock_guard lock(mutex_);
                mqtt_deliveries_sent(deliveries_, deliveries_.connection, mid, "", 0);
            }
        }
    }

    // Why an attempt that has not connected yet is over, or 0. libmosquitto
    // keeps retrying a TLS handshake on a socket whose connection was
    // refused, so the socket's own state tells, as long as the broker has
    // not answered the handshake (after that, its alerts say more).
    int unanswered(mosquitto* m, std::chrono::steady_clock::time_point attempt_by) {
        {
            std::lock_guard lock(mutex_);
            if (connected_) {
                return 0;
            }
        }
        auto* ssl = static_cast<SSL*>(mosquitto_ssl_get(m));
        OSSL_HANDSHAKE_STATE handshake = ssl ? SSL_get_state(ssl) : TLS_ST_OK;
        tcp_info info{};
        socklen_t size = sizeof(info);
        int fd = mosquitto_socket(m);
        if ((handshake == TLS_ST_BEFORE || handshake == TLS_ST_CW_CLNT_HELLO) && fd >= 0 &&
            getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &size) == 0 &&
            (info.tcpi_state == TCP_CLOSE || info.tcpi_state == TCP_CLOSE_WAIT)) {
            // A plain listener closes the connection on a TLS greeting; a
            // connection that was never made has no round-trip time.
            return info.tcpi_state == TCP_CLOSE_WAIT || info.tcpi_rtt ? EPROTO : ECONNREFUSED;
        }
        return std::chrono::steady_clock::now() > attempt_by ? ETIMEDOUT : 0;
    }

    bool stopped() {
        std::lock_guard lock(mutex_);
        return stopping_ && (!connected_ || std::chrono::steady_clock::now() > stop_by_);
    }

    // The end of an attempt or of a connection: says why, once per change
    // of state, and whether the client had been connected.
    bool ended(int rc, int error, bool handshaken) {
        std::string refusal = mqtt_tls_take_refusal();
        std::lock_guard lock(mutex_);
        bool was_connected = connected_;
        std::string at = "the MQTT broker at " + address_;
        if (!refusal_.empty()) {
            report("refused", 3, at + " " + refusal_);
        } else if (connack_ == MQTT_RC_BAD_USERNAME_OR_PASSWORD ||
                   connack_ == MQTT_RC_NOT_AUTHORIZED) {
            report("refused", 3,
                   at + " refused the credentials: " + mosquitto_reason_string(connack_));
        } else if (connack_ != 0) {
            report("refused", 3,
                   at + " refused the connection: " + mosquitto_reason_string(connack_));
        } else if (!was_connected && (!refusal.empty() || !tls_error_.empty())) {
            report("tls", 3,
                   "TLS with " + at + " failed: " + (refusal.empty() ? tls_error_ : refusal) +
                       "; nothing is sent to it");
        } else if (!was_connected && rc == MOSQ_ERR_ERRNO && error == EPROTO) {
            report("tls", 3,
                   at + " closed the connection during the TLS handshake; is it a plain MQTT "
                        "listener (an mqtt:// URL)?");
        } else if (!was_connected &&
                   (rc == MOSQ_ERR_KEEPALIVE || (rc == MOSQ_ERR_ERRNO && error == ETIMEDOUT))) {
            std::string seconds = std::to_string(settings_.keepalive);
            report("away", 4,
                   !handshaken
                       ? at + " did not answer the TLS handshake within " + seconds + " s"
                       : at + " took the connection but sent no CONNACK within " + seconds + " s");
        } else {
            std::string why =
                disconnect_reason_ >= 0x80 ? mosquitto_reason_string(disconnect_reason_)
                : rc == MOSQ_ERR_KEEPALIVE ? "no answer within the keepalive of " +
                                                 std::to_string(settings_.keepalive) + " s"
                : rc == MOSQ_ERR_ERRNO                        ? strerror(error)
                : (rc == MOSQ_ERR_TLS || !tls_error_.empty()) ? "the connection was closed"
                                                              : mosquitto_strerror(rc);
            report("away", 4,
                   was_connected
                       ? "lost " + at + " (" + why + "); items are dropped until it is back"
                       : "cannot reach " + at + ": " + why);
        }
        return was_connected;
    }

    // One log line per change of state.
    void report(const std::string& state, int level, const std::string& message) {
        // Whatever the network's error, the broker is away; a refusal is a
        // new state when its reason changes.
        std::string key = state == "refused" || state == "tls" ? state + ": " + message : state;
        if (key != state_) {
            fprintf(stderr, "<%d>varro: %s\n", level, message.c_str());
        }
        state_ = key;
        changed_.notify_all();
    }

    void connected(mosquitto* m, const mosquitto_property* properties) {
        uint32_t max_packet = 0;
        uint8_t max_qos = 2;
        mosquitto_property_read_int32(properties, MQTT_PROP_MAXIMUM_PACKET_SIZE, &max_packet,
                                      false);
        bool qos_limited =
            mosquitto_property_read_byte(properties, MQTT_PROP_MAXIMUM_QOS, &max_qos, false) &&
            max_qos < settings_.qos;
        if (qos_limited) {
            {
                std::lock_guard lock(mutex_);
                refusal_ = "takes no messages of QoS " + std::to_string(settings_.qos) +
                           " (its max_qos is " + std::to_string(max_qos) +
                           "), which data items need; nothing is published to it";
            }
            mosquitto_disconnect(m);
            return;
        }
        std::lock_guard lock(mutex_);
        max_packet_ = max_packet;
        std::string message = "connected to the MQTT broker at " + address_;
        if (ever_connected_) {
            message += " again; " + std::to_string(mqtt_deliveries_back(deliveries_)) +
                       " data items were dropped while it was away";
        }
        ever_connected_ = true;
        connected_ = true;
        mqtt_topics_connected(topics_);
        report(CONNECTED, 6, message);
    }

    void report_drops() {
        std::lock_guard lock(mutex_);
        if (!unusable_.empty()) {
            mqtt_deliveries_back(deliveries_);
            if (deliveries_.dropped_away) {
                fprintf(stderr, "<6>varro: %llu data items dropped: no MQTT broker (%s)\n",
                        static_cast<unsigned long long>(deliveries_.dropped_away),
                        unusable_.c_str());
            }
        } else if (std::string summary = mqtt_deliveries_summary(deliveries_); !summary.empty()) {
            fprintf(stderr, "<6>varro: %s\n", summary.c_str());
        }
    }

    static MqttClient& self(void* client) { return *static_cast<MqttClient*>(client); }

    static void on_connect(mosquitto* m, void* client, int rc, int,
                           const mosquitto_property* properties) {
        MqttClient& c = self(client);
        if (rc == 0) {
            c.connected(m, properties);
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
        mqtt_topics_seen(c.topics_, topic.substr(0, topic.size() - suffix.size()),
                         std::string(static_cast<const char*>(message->payload),
                                     static_cast<size_t>(message->payloadlen)));
    }
    static void on_subscribe(mosquitto*, void* client, int mid, int, const int*) {
        MqttClient& c = self(client);
        std::lock_guard lock(c.mutex_);
        mqtt_topics_answered(c.topics_, mid, std::chrono::steady_clock::now());
    }
    static void on_publish(mosquitto*, void* client, int mid, int reason,
                           const mosquitto_property*) {
        MqttClient& c = self(client);
        std::lock_guard lock(c.mutex_);
        mqtt_deliveries_answered(c.deliveries_, mid, reason);
        c.changed_.notify_all();
    }

    std::string unusable_;  // why the settings cannot be used, or empty
    const mqtt_settings_t settings_;
    const std::string address_;
    std::string client_id_;
    mqtt_tls_t tls_;
    std::thread thread_;
    std::atomic<bool> stopping_{false};

    // Guards the object of the current connection, which the connection's
    // thread destroys once the connection is over; held by publishers while
    // they use it. Taken before mutex_.
    std::mutex object_mutex_;
    mosquitto* mosq_ = nullptr;

    // Guards what follows. Never held while calling into libmosquitto,
    // whose callbacks take it.
    std::mutex mutex_;
    std::condition_variable changed_;
    std::chrono::steady_clock::time_point stop_by_;
    std::string state_;  // empty before the first attempt ends
    bool ever_connected_ = false;
    bool connected_ = false;     // on the current attempt
    int connack_ = 0;            // of the current attempt
    int disconnect_reason_ = 0;  // of the current attempt
    uint32_t max_packet_ = 0;    // the broker's, 0 for none
    std::string tls_error_;      // of the current attempt
    std::string refusal_;        // of the current attempt, after its CONNACK
    mqtt_topics_t topics_;
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
    source_ = key["source"].is_string() ? key["source"].get<std::string>() : key["source"].dump();
    data_topic_ = topic_ + "/" + source_;
    client_.add_key(topic_, source_, instance.Key());
    return {};
}

Result<void> MqttWriter::WriteData(const TopicData& data,
                                   std::optional<std::chrono::system_clock::time_point>) {
    if (data_topic_.empty()) {
        return MakeError(ApiErrorCode::InvalidArgument, "no instance of topic '" + topic_ + "'");
    }
    // Items dropped while the broker is away or behind are counted, not
    // failed: the client says so once, not per item.
    client_.publish_item(topic_, source_, data_topic_, data.Json());
    return {};
}

}  // namespace

std::unique_ptr<Client> create_mqtt_client(const std::string& name, const std::string& url) {
    std::vector<std::string> warnings;
    auto settings = mqtt_settings_from_env(url, name, warnings);
    for (const auto& warning : warnings) {
        fprintf(stderr, "<4>varro: %s\n", warning.c_str());
    }
    return std::make_unique<MqttClient>(std::move(settings));
}

}  // namespace tessel_os_varro
