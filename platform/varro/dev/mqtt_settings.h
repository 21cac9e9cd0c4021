// Settings of the MQTT backend, read from the environment.
#pragma once

#include <chrono>
#include <expected>
#include <string>

namespace tessel_os_varro {

struct mqtt_settings_t {
    std::string host;
    int port = 1883;
    bool tls = false;
    std::string username, password;
    std::string cafile, certfile, keyfile;
    int qos = 1;
    std::chrono::milliseconds min_delay{1000}, max_delay{60000};
};

// The settings for the broker at `url` (mqtt://host[:port] or mqtts://...)
// with the VARRO_MQTT_* variables, or why they cannot be used. The error
// names variables and files, never a secret.
std::expected<mqtt_settings_t, std::string> mqtt_settings_from_env(const std::string& url);

// The wait before the next attempt after `failures` failed ones in a row:
// the minimum doubled per failure, at most the maximum, of which a random
// part between half and all (`random` in [0, 1)), so that the devices that
// lost one broker do not all come back at once.
std::chrono::milliseconds mqtt_settings_reconnect_delay(const mqtt_settings_t& settings,
                                                        int failures, double random);

// The address as log lines name it, host:port.
std::string mqtt_settings_address(const mqtt_settings_t& settings);

}  // namespace tessel_os_varro
