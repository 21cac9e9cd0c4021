// What became of the items an MQTT client published: the bytes that await
// the broker, its answers, the topics it refuses and the items dropped. The
// client's mutex guards it.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>

namespace tessel_os_varro {

struct mqtt_delivery_t {
    std::string topic;
    uint64_t bytes = 0;
};

struct mqtt_deliveries_t {
    std::string address;            // of the broker, for log lines
    uint64_t max_bytes = 8u << 20;  // of the items awaiting the broker
    // Counts the connections that ended: the items of an earlier one went
    // with its session and are no longer counted against the bound.
    uint64_t connection = 0;
    uint64_t pending_bytes = 0;                // items handed to the library, not yet answered
    std::map<int, mqtt_delivery_t> in_flight;  // message id -> item
    std::map<int, int> unclaimed;              // message id -> reason, answered before sent
    std::set<std::string> refused;             // data topics
    std::set<std::string> oversized;           // data topics reported once
    uint64_t away = 0;                         // items dropped since the broker went away
    uint64_t dropped_away = 0, dropped_refused = 0, dropped_behind = 0, dropped_oversize = 0;
};

// Whether an item of `bytes` may be handed to the library now: the broker is
// `ready` for it and it fits beside the items that await the broker. Its
// bytes are then counted until it is answered or the connection ends;
// otherwise it is counted as dropped.
bool mqtt_deliveries_admit(mqtt_deliveries_t& deliveries, bool ready, uint64_t bytes);

// The library took the admitted item as message `mid` of `connection`. The
// broker's answer may have come before the publishing thread gets here.
void mqtt_deliveries_sent(mqtt_deliveries_t& deliveries, uint64_t connection, int mid,
                          const std::string& topic, uint64_t bytes);

// The library did not take the admitted item; where the broker's maximum
// packet size is why (`max_packet` > 0), the first one of a topic is logged.
void mqtt_deliveries_unsent(mqtt_deliveries_t& deliveries, uint64_t connection,
                            const std::string& topic, uint64_t bytes, uint32_t max_packet);

// The broker's answer to `mid`: one log line when it starts refusing a
// topic and one when it takes it again.
void mqtt_deliveries_answered(mqtt_deliveries_t& deliveries, int mid, int reason);

// The connection ended, and its session with the library's copies of the
// items: those unanswered are dropped, never sent again.
void mqtt_deliveries_lost(mqtt_deliveries_t& deliveries);

// The items dropped while the broker was away, counted from now on in the
// totals.
uint64_t mqtt_deliveries_back(mqtt_deliveries_t& deliveries);

// The log line of the items dropped in all, or empty where none were.
std::string mqtt_deliveries_summary(mqtt_deliveries_t& deliveries);

}  // namespace tessel_os_varro
