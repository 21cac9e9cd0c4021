// What became of the items an MQTT client published.

#include "mqtt_deliveries.h"

#include <mosquitto.h>

#include <cstdio>

namespace tessel_os_varro {
namespace {

constexpr size_t MAX_UNCLAIMED = 256;

void settle(mqtt_deliveries_t& d, const std::string& topic, int reason) {
    if (topic.empty()) {
        return;  // a definition or an instance key
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

bool mqtt_deliveries_admit(mqtt_deliveries_t& d, bool ready, uint64_t bytes) {
    if (!ready) {
        ++d.away;
        return false;
    }
    if (d.pending_bytes + bytes > d.max_bytes) {
        ++d.dropped_behind;
        return false;
    }
    d.pending_bytes += bytes;
    return true;
}

void mqtt_deliveries_sent(mqtt_deliveries_t& d, uint64_t connection, int mid,
                          const std::string& topic, uint64_t bytes) {
    if (connection != d.connection) {
        return;  // gone with its connection, bytes and all
    }
    if (auto answer = d.unclaimed.find(mid); answer != d.unclaimed.end()) {
        settle(d, topic, answer->second);
        d.unclaimed.erase(answer);
        d.pending_bytes -= bytes;
    } else {
        d.in_flight[mid] = {topic, bytes};
    }
}

void mqtt_deliveries_unsent(mqtt_deliveries_t& d, uint64_t connection, const std::string& topic,
                            uint64_t bytes, uint32_t max_packet) {
    if (connection == d.connection) {
        d.pending_bytes -= bytes;
    }
    if (!max_packet) {
        ++d.away;
        return;
    }
    ++d.dropped_oversize;
    if (d.oversized.insert(topic).second) {
        fprintf(stderr,
                "<4>varro: items on '%s' of %llu bytes exceed the maximum packet size of the MQTT "
                "broker at %s (%u bytes) and are dropped; raise its max_packet_size or send "
                "fewer objects\n",
                topic.c_str(), static_cast<unsigned long long>(bytes), d.address.c_str(),
                max_packet);
    }
}

void mqtt_deliveries_answered(mqtt_deliveries_t& d, int mid, int reason) {
    if (auto item = d.in_flight.find(mid); item != d.in_flight.end()) {
        settle(d, item->second.topic, reason);
        d.pending_bytes -= item->second.bytes;
        d.in_flight.erase(item);
        return;
    }
    // Answers that nobody claims must not pile up.
    if (d.unclaimed.size() >= MAX_UNCLAIMED) {
        d.unclaimed.erase(d.unclaimed.begin());
    }
    d.unclaimed[mid] = reason;
}

void mqtt_deliveries_lost(mqtt_deliveries_t& d) {
    for (const auto& [mid, item] : d.in_flight) {
        d.away += !item.topic.empty();
    }
    d.in_flight.clear();
    d.unclaimed.clear();
    d.pending_bytes = 0;
    ++d.connection;
}

uint64_t mqtt_deliveries_back(mqtt_deliveries_t& d) {
    uint64_t away = d.away;
    d.dropped_away += away;
    d.away = 0;
    return away;
}

std::string mqtt_deliveries_summary(mqtt_deliveries_t& d) {
    mqtt_deliveries_back(d);
    if (d.dropped_away + d.dropped_refused + d.dropped_behind + d.dropped_oversize == 0) {
        return "";
    }
    return "left the MQTT broker at " + d.address +
           "; data items dropped: " + std::to_string(d.dropped_away) + " while it was away, " +
           std::to_string(d.dropped_refused) + " refused, " + std::to_string(d.dropped_behind) +
           " beyond " + std::to_string(d.max_bytes) + " bytes awaiting it, " +
           std::to_string(d.dropped_oversize) + " above its maximum packet size";
}

}  // namespace tessel_os_varro
