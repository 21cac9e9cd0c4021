// What became of the items an MQTT client published.

#include "mqtt_deliveries.h"

#include <mosquitto.h>

#include <cstdio>

namespace tessel_os_varro {
namespace {

constexpr size_t MAX_UNCLAIMED = 256;

void settle(mqtt_deliveries_t& d, const std::string& topic, int reason) {
    if (topic.empty()) {
        return;
    }
    if (reason >= 0x80) {
        ++d.dropped_refused;
        if (d.refused.insert(topic).second) {
            fprintf(stderr, "<4>varro: the MQTT broker at %s refuses items on '%s': %s\n",
                    d.address.c_str(), topic.c_str(), mosquitto_reason_string(reason));
        }
    } else if (d.refused.erase(topic)) {
        fprintf(stderr, "<6>varro: the MQTT broker at %s takes items on '%s' again\n",
                d.address.c_str(), topic.c_str());
    }
}

}  // namespace

bool mqtt_deliveries_admit(mqtt_deliveries_t& d, bool connected) {
    if (!connected) {
        ++d.away;
        return false;
    }
    if (d.in_flight.size() >= MQTT_MAX_IN_FLIGHT) {
        ++d.dropped_behind;
        return false;
    }
    return true;
}

void mqtt_deliveries_sent(mqtt_deliveries_t& d, int mid, const std::string& topic) {
    if (auto answer = d.unclaimed.find(mid); answer != d.unclaimed.end()) {
        settle(d, topic, answer->second);
        d.unclaimed.erase(answer);
    } else {
        d.in_flight[mid] = topic;
    }
}

void mqtt_deliveries_answered(mqtt_deliveries_t& d, int mid, int reason) {
    if (auto item = d.in_flight.find(mid); item != d.in_flight.end()) {
        settle(d, item->second, reason);
        d.in_flight.erase(item);
        return;
    }
    // Answers nobody claims (to a connection lost meanwhile) must not pile up.
    if (d.unclaimed.size() >= MAX_UNCLAIMED) {
        d.unclaimed.erase(d.unclaimed.begin());
    }
    d.unclaimed[mid] = reason;
}

std::optional<int> mqtt_deliveries_take(mqtt_deliveries_t& d, int mid) {
    auto answer = d.unclaimed.find(mid);
    if (answer == d.unclaimed.end()) {
        return std::nullopt;
    }
    int reason = answer->second;
    d.unclaimed.erase(answer);
    return reason;
}

void mqtt_deliveries_lost(mqtt_deliveries_t& d) {
    d.in_flight.clear();
}

uint64_t mqtt_deliveries_back(mqtt_deliveries_t& d) {
    uint64_t away = d.away;
    d.dropped_away += away;
    d.away = 0;
    return away;
}

std::string mqtt_deliveries_summary(mqtt_deliveries_t& d) {
    mqtt_deliveries_back(d);
    if (d.dropped_away + d.dropped_refused + d.dropped_behind == 0) {
        return "";
    }
    return "left the MQTT broker at " + d.address +
           "; data items dropped: " + std::to_string(d.dropped_away) + " while it was away, " +
           std::to_string(d.dropped_refused) + " refused, " + std::to_string(d.dropped_behind) +
           " beyond " + std::to_string(MQTT_MAX_IN_FLIGHT) + " awaiting its acknowledgement";
}

}  // namespace tessel_os_varro
