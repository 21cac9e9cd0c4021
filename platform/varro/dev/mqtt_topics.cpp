// The topics of an MQTT client and how far the broker knows them.

#include "mqtt_topics.h"

namespace tessel_os_varro {

bool mqtt_topics_known(const mqtt_topics_t& t, const std::string& name) {
    auto topic = t.topics.find(name);
    return topic != t.topics.end() && !topic->second.definition.empty();
}

void mqtt_topics_define(mqtt_topics_t& t, const std::string& name, const std::string& definition) {
    mqtt_topic_t& topic = t.topics[name];
    if (topic.definition.empty()) {
        topic.definition = definition;
    }
}

void mqtt_topics_add_key(mqtt_topics_t& t, const std::string& name, const std::string& source,
                         const std::string& key) {
    mqtt_topic_t& topic = t.topics[name];
    topic.keys[source] = key;
    topic.keyed.erase(source);
}

void mqtt_topics_connected(mqtt_topics_t& t) {
    t.subscriptions.clear();
    for (auto& [name, topic] : t.topics) {
        topic.step = mqtt_topic_t::ASK;
        topic.found = false;
        topic.keyed.clear();
    }
}

mqtt_topics_work_t mqtt_topics_due(mqtt_topics_t& t, std::chrono::steady_clock::time_point now,
                                   std::chrono::milliseconds wait) {
    mqtt_topics_work_t work;
    for (auto& [name, topic] : t.topics) {
        if (topic.step == mqtt_topic_t::ASK) {
            topic.step = mqtt_topic_t::ASKED;
            work.subscribe.push_back(name);
            continue;
        }
        if (topic.step == mqtt_topic_t::LOOKING && (topic.found || now >= topic.answered + wait)) {
            if (!topic.found && !topic.definition.empty()) {
                work.publish.push_back({name + "/$definition", topic.definition});
            }
            topic.step = mqtt_topic_t::READY;
        }
        if (topic.step != mqtt_topic_t::READY) {
            continue;
        }
        for (const auto& [source, key] : topic.keys) {
            if (topic.keyed.insert(source).second) {
                work.publish.push_back({name + "/$instances/" + source, key});
            }
        }
    }
    return work;
}

void mqtt_topics_asked(mqtt_topics_t& t, const std::string& name, int mid) {
    if (mid < 0) {
        t.topics[name].step = mqtt_topic_t::ASK;
    } else {
        t.subscriptions[mid] = name;
    }
}

void mqtt_topics_answered(mqtt_topics_t& t, int mid, std::chrono::steady_clock::time_point now) {
    auto subscription = t.subscriptions.find(mid);
    if (subscription == t.subscriptions.end()) {
        return;
    }
    mqtt_topic_t& topic = t.topics[subscription->second];
    t.subscriptions.erase(subscription);
    if (topic.step == mqtt_topic_t::ASKED) {
        topic.step = mqtt_topic_t::LOOKING;
        topic.answered = now;
    }
}

void mqtt_topics_seen(mqtt_topics_t& t, const std::string& name, const std::string& definition) {
    auto topic = t.topics.find(name);
    if (topic != t.topics.end() && !definition.empty()) {
        topic->second.definition = definition;
        topic->second.found = true;
    }
}

bool mqtt_topics_ready(const mqtt_topics_t& t, const std::string& name, const std::string& source) {
    auto topic = t.topics.find(name);
    return topic != t.topics.end() && topic->second.step == mqtt_topic_t::READY &&
           topic->second.keyed.count(source);
}

}  // namespace tessel_os_varro
