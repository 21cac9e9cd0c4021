// The topics of an MQTT client: their definitions and instance keys, and
// how far each connection has come in making them known to the broker. A
// topic's items go only once the broker has its definition and its key on
// the current connection. The client's mutex guards it.
#pragma once

#include <chrono>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace tessel_os_varro {

struct mqtt_topic_t {
    // Published where the broker has none; the broker's own once it showed
    // one, so that an existing topic is never redefined.
    std::string definition;
    std::map<std::string, std::string> keys;  // source -> instance key
    // On the current connection: asking for the broker's definition, waiting
    // for its answer, looking at what it sent, ready for items.
    enum step_t { ASK, ASKED, LOOKING, READY } step = ASK;
    std::chrono::steady_clock::time_point answered;
    bool found = false;
    std::set<std::string> keyed;  // sources whose key the broker has
};

struct mqtt_topics_t {
    std::map<std::string, mqtt_topic_t> topics;
    std::map<int, std::string> subscriptions;  // message id -> topic
};

// A retained message for the connection's thread to publish.
struct mqtt_retained_t {
    std::string topic, payload;
};

// What the connection's thread is to do next.
struct mqtt_topics_work_t {
    std::vector<std::string> subscribe;  // topics whose definition to ask for
    std::vector<mqtt_retained_t> publish;
};

// Whether the topic is known, from its registration or from the broker.
bool mqtt_topics_known(const mqtt_topics_t& topics, const std::string& name);

// Registers `name` with the definition to give the broker where it has none.
void mqtt_topics_define(mqtt_topics_t& topics, const std::string& name,
                        const std::string& definition);

// Adds the instance key of `source` to a topic.
void mqtt_topics_add_key(mqtt_topics_t& topics, const std::string& name, const std::string& source,
                         const std::string& key);

// A new connection: every topic is made known to the broker again.
void mqtt_topics_connected(mqtt_topics_t& topics);

// The subscriptions and publications due at `now`; a topic whose broker has
// answered its subscription and shown no definition within `wait` gets its
// own. Moves the topics on as if the work were done.
mqtt_topics_work_t mqtt_topics_due(mqtt_topics_t& topics, std::chrono::steady_clock::time_point now,
                                   std::chrono::milliseconds wait);

// The subscription for topic `name` went out as message `mid`; without one
// (`mid` < 0) it is asked again later.
void mqtt_topics_asked(mqtt_topics_t& topics, const std::string& name, int mid);

// The broker answered subscription `mid`.
void mqtt_topics_answered(mqtt_topics_t& topics, int mid,
                          std::chrono::steady_clock::time_point now);

// The broker holds `definition` for `name` (its retained message).
void mqtt_topics_seen(mqtt_topics_t& topics, const std::string& name,
                      const std::string& definition);

// Whether items of `source` may go to the broker on this connection.
bool mqtt_topics_ready(const mqtt_topics_t& topics, const std::string& name,
                       const std::string& source);

}  // namespace tessel_os_varro
