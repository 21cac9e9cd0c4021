// Settings of the MQTT backend, read from the environment.
#pragma once

#include <chrono>
#include <cstdint>
#include <expected>
#include <string>
#include <vector>

namespace tessel_os_varro {

struct mqtt_settings_t {
    std::string host;  // an IPv6 address without its brackets
    int port = 1883;
    bool tls = false;
    std::string client_id;
    std::string username, password;
    std::string cafile, certfile, keyfile;
    int qos = 1;
    int keepalive = 20;  // seconds; also the time an attempt has to connect
    uint64_t max_pending_bytes = 8u << 20;
    std::chrono::milliseconds min_delay{1000}, max_delay{60000};
};

// The shortest wait between two attempts to reach the broker.
constexpr std::chrono::milliseconds MQTT_MIN_RECONNECT_DELAY{100};

// The settings for the broker at `url` (mqtt://host[:port], mqtts://...,
// host a name, an IPv4 address or a bracketed IPv6 one) with the
// VARRO_MQTT_* variables, or why they cannot be used. The error names the
// variable and the reason, never a secret. Warnings about values that were
// adjusted are added to `warnings`.
std::expected<mqtt_settings_t, std::string> mqtt_settings_from_env(
    const std::string& url, const std::string& client_name, std::vector<std::string>& warnings);

// The client id of `client_name` on this device, the same after every
// restart: the name and a digest of the machine id and the name, so that
// devices made from one image do not take each other's connections.
std::string mqtt_settings_client_id(const std::string& client_name, const std::string& machine_id);

// The wait before the next attempt after `failures` failed ones in a row:
// the minimum doubled per failure, at most the maximum, of which a random
// part between half and all (`random` in [0, 1)), so that the devices that
// lost one broker do not all come back at once.
std::chrono::milliseconds mqtt_settings_reconnect_delay(const mqtt_settings_t& settings,
                                                        int failures, double random);

// The address as log lines name it, host:port or [address]:port.
std::string mqtt_settings_address(const mqtt_settings_t& settings);

}  // namespace tessel_os_varro
