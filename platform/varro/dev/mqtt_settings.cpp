// Settings of the MQTT backend, read from the environment.

#include "mqtt_settings.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace tessel_os_varro {
namespace {

std::string env(const char* name) {
    const char* value = getenv(name);
    return value ? value : "";
}

// "MIN[:MAX]" in seconds, as VARRO_MQTT_RECONNECT_DELAY gives it.
bool parse_delays(const std::string& text, mqtt_settings_t& s) {
    char* end = nullptr;
    double min = strtod(text.c_str(), &end);
    double max = *end == ':' ? strtod(end + 1, &end) : std::max(min, 60.0);
    if (*end || !(min > 0) || !(max >= min) || max > 86400) {
        return false;
    }
    s.min_delay = std::chrono::milliseconds(static_cast<long>(min * 1000));
    s.max_delay = std::chrono::milliseconds(static_cast<long>(max * 1000));
    return true;
}

}  // namespace

std::expected<mqtt_settings_t, std::string> mqtt_settings_from_env(const std::string& url) {
    mqtt_settings_t s;
    std::string rest;
    if (url.starts_with("mqtt://")) {
        rest = url.substr(7);
    } else if (url.starts_with("mqtts://")) {
        rest = url.substr(8);
        s.tls = true;
        s.port = 8883;
    } else {
        return std::unexpected("VARRO_MQTT_URL is not an mqtt:// or mqtts:// address: " + url);
    }
    if (size_t colon = rest.rfind(':'); colon != std::string::npos) {
        s.port = atoi(rest.c_str() + colon + 1);
        rest.resize(colon);
    }
    if (rest.empty() || s.port <= 0 || s.port > 65535) {
        return std::unexpected("VARRO_MQTT_URL names no host and port: " + url);
    }
    s.host = rest;
    s.username = env("VARRO_MQTT_USERNAME");
    s.password = env("VARRO_MQTT_PASSWORD");
    if (std::string file = env("VARRO_MQTT_PASSWORD_FILE"); !file.empty()) {
        std::ifstream in(file);
        if (!in || !std::getline(in, s.password)) {
            return std::unexpected("cannot read VARRO_MQTT_PASSWORD_FILE " + file + ": " +
                                   strerror(errno ? errno : EIO));
        }
        if (s.password.ends_with('\r')) {
            s.password.pop_back();
        }
    }
    s.cafile = env("VARRO_MQTT_CAFILE");
    s.certfile = env("VARRO_MQTT_CERTFILE");
    s.keyfile = env("VARRO_MQTT_KEYFILE");
    if (!s.tls && !(s.cafile + s.certfile + s.keyfile).empty()) {
        return std::unexpected("VARRO_MQTT_CAFILE, _CERTFILE and _KEYFILE need an mqtts:// URL");
    }
    s.qos = std::clamp(atoi(env("VARRO_MQTT_QOS").c_str()), 1, 2);
    if (std::string delays = env("VARRO_MQTT_RECONNECT_DELAY");
        !delays.empty() && !parse_delays(delays, s)) {
        return std::unexpected("VARRO_MQTT_RECONNECT_DELAY is not MIN[:MAX] in seconds: " + delays);
    }
    return s;
}

std::chrono::milliseconds mqtt_settings_reconnect_delay(const mqtt_settings_t& s, int failures,
                                                        double random) {
    auto base = s.min_delay;
    for (int i = 0; i < failures && base < s.max_delay; ++i) {
        base *= 2;
    }
    base = std::min(base, s.max_delay);
    return std::chrono::milliseconds(static_cast<long>(base.count() * (0.5 + random / 2)));
}

std::string mqtt_settings_address(const mqtt_settings_t& s) {
    return s.host + ":" + std::to_string(s.port);
}

}  // namespace tessel_os_varro
