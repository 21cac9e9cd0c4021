// What became of the items an MQTT client published: the broker's answers,
// the topics it refuses and the items dropped. The client's mutex guards it.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>

namespace tessel_os_varro {

struct mqtt_deliveries_t {
    std::string address;                   // of the broker, for log lines
    std::map<int, std::string> in_flight;  // message id -> data topic, empty for a key
    std::map<int, int> unclaimed;          // message id -> reason, not yet claimed
    std::set<std::string> refused;         // data topics
    uint64_t away = 0;                     // items dropped since the broker went away
    uint64_t dropped_away = 0, dropped_refused = 0, dropped_behind = 0;
};

// At most this many items await the broker's answer; more are dropped.
constexpr size_t MQTT_MAX_IN_FLIGHT = 100;

// Whether an item may be sent now; counts it as dropped if not.
bool mqtt_deliveries_admit(mqtt_deliveries_t& deliveries, bool connected);

// Message `mid` was sent to `topic` (empty for a retained key). The
// broker's answer may have come before the sending thread gets here.
void mqtt_deliveries_sent(mqtt_deliveries_t& deliveries, int mid, const std::string& topic);

// The broker's answer to `mid`: one log line when it starts refusing a
// topic and one when it takes it again. Answers that nobody has claimed are
// kept, a bounded number of them, for mqtt_deliveries_take.
void mqtt_deliveries_answered(mqtt_deliveries_t& deliveries, int mid, int reason);

// The answer to `mid` for a caller that waits for it, once it has come.
std::optional<int> mqtt_deliveries_take(mqtt_deliveries_t& deliveries, int mid);

// The connection ended: libmosquitto sends the items in flight again.
void mqtt_deliveries_lost(mqtt_deliveries_t& deliveries);

// The items dropped while the broker was away, counted from now on in the
// totals.
uint64_t mqtt_deliveries_back(mqtt_deliveries_t& deliveries);

// The log line of the items dropped in all, or empty where none were.
std::string mqtt_deliveries_summary(mqtt_deliveries_t& deliveries);

}  // namespace tessel_os_varro
