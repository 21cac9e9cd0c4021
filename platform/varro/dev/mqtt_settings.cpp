// Settings of the MQTT backend, read from the environment.

#include "mqtt_settings.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>

namespace tessel_os_varro {
namespace {

std::string env(const char* name) {
    const char* value = getenv(name);
    return value ? value : "";
}

// A whole decimal number within [min, max], or nothing.
std::optional<long long> whole_number(const std::string& text, long long min, long long max) {
    if (text.empty() || text.size() > 18 ||
        !std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        return std::nullopt;
    }
    long long value = atoll(text.c_str());
    return value >= min && value <= max ? std::optional(value) : std::nullopt;
}

// Host and port of the URL after its scheme.
std::expected<void, std::string> parse_address(const std::string& url, std::string rest,
                                               mqtt_settings_t& s) {
    // The user name and password have variables of their own, which keep the
    // password out of process listings and the log.
    if (rest.find('@') != std::string::npos) {
        return std::unexpected(
            "VARRO_MQTT_URL must not carry a user name or password; use VARRO_MQTT_USERNAME and "
            "VARRO_MQTT_PASSWORD_FILE");
    }
    if (rest.ends_with('/')) {
        rest.pop_back();
    }
    std::string port;
    if (rest.starts_with('[')) {
        size_t close = rest.find(']');
        if (close == std::string::npos || (close + 1 < rest.size() && rest[close + 1] != ':')) {
            return std::unexpected(
                "VARRO_MQTT_URL has an IPv6 address without its closing "
                "bracket: " +
                url);
        }
        s.host = rest.substr(1, close - 1);
        if (close + 1 < rest.size()) {
            port = rest.substr(close + 2);
            if (port.empty()) {
                return std::unexpected("VARRO_MQTT_URL has an empty port: " + url);
            }
        }
    } else if (std::count(rest.begin(), rest.end(), ':') > 1) {
        return std::unexpected("VARRO_MQTT_URL needs an IPv6 address in brackets ([::1]:1883): " +
                               url);
    } else if (size_t colon = rest.find(':'); colon != std::string::npos) {
        s.host = rest.substr(0, colon);
        port = rest.substr(colon + 1);
        if (port.empty()) {
            return std::unexpected("VARRO_MQTT_URL has an empty port: " + url);
        }
    } else {
        s.host = rest;
    }
    if (s.host.empty() || s.host.find_first_of("/?# ") != std::string::npos) {
        return std::unexpected("VARRO_MQTT_URL names no host: " + url);
    }
    if (!port.empty()) {
        auto number = whole_number(port, 1, 65535);
        if (!number) {
            return std::unexpected("VARRO_MQTT_URL has a port outside 1-65535: " + url);
        }
        s.port = static_cast<int>(*number);
    }
    return {};
}

// The first line of the password file, or why it cannot be used. The file
// is read, not the password written anywhere.
std::expected<std::string, std::string> read_password(const std::string& file) {
    std::string name = "VARRO_MQTT_PASSWORD_FILE " + file;
    int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    struct stat st;
    if (fd < 0 || fstat(fd, &st) != 0) {
        std::string why = strerror(errno);
        if (fd >= 0) {
            close(fd);
        }
        return std::unexpected("cannot read " + name + ": " + why);
    }
    std::string text;
    char buffer[1024];
    ssize_t n = 0;
    while (S_ISREG(st.st_mode) && text.size() < 65536 &&
           (n = read(fd, buffer, sizeof(buffer))) > 0) {
        text.append(buffer, static_cast<size_t>(n));
    }
    int error = errno;
    close(fd);
    if (!S_ISREG(st.st_mode)) {
        return std::unexpected("cannot read " + name + ": it is not a regular file");
    }
    if (n < 0) {
        return std::unexpected("cannot read " + name + ": " + strerror(error));
    }
    std::string password = text.substr(0, text.find('\n'));
    if (password.ends_with('\r')) {
        password.pop_back();
    }
    if (password.empty()) {
        return std::unexpected(name + (text.empty() ? " is empty" : " has an empty first line"));
    }
    return password;
}

// "MIN[:MAX]" in seconds, as VARRO_MQTT_RECONNECT_DELAY gives it.
bool parse_delays(const std::string& text, mqtt_settings_t& s, std::vector<std::string>& warnings) {
    char* end = nullptr;
    double min = strtod(text.c_str(), &end);
    double max = *end == ':' ? strtod(end + 1, &end) : std::max(min, 60.0);
    if (*end || !(min > 0) || !(max >= min) || max > 86400) {
        return false;
    }
    s.min_delay = std::chrono::milliseconds(static_cast<long>(min * 1000));
    s.max_delay = std::chrono::milliseconds(static_cast<long>(max * 1000));
    if (s.min_delay < MQTT_MIN_RECONNECT_DELAY) {
        warnings.push_back("VARRO_MQTT_RECONNECT_DELAY " + text +
                           ": waiting at least 0.1 s between attempts to reach the broker");
        s.min_delay = MQTT_MIN_RECONNECT_DELAY;
        s.max_delay = std::max(s.max_delay, s.min_delay);
    }
    return true;
}

std::string read_first_line(const char* path) {
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    return line;
}

}  // namespace

std::expected<mqtt_settings_t, std::string> mqtt_settings_from_env(
    const std::string& url, const std::string& client_name, std::vector<std::string>& warnings) {
    mqtt_settings_t s;
    std::string rest;
    if (url.starts_with("mqtt://")) {
        rest = url.substr(7);
    } else if (url.starts_with("mqtts://")) {
        rest = url.substr(8);
        s.tls = true;
        s.port = 8883;
    } else {
        return std::unexpected(url.find('@') != std::string::npos
                                   ? "VARRO_MQTT_URL is not an mqtt:// or mqtts:// address"
                                   : "VARRO_MQTT_URL is not an mqtt:// or mqtts:// address: " +
                                         url);
    }
    if (auto address = parse_address(url, rest, s); !address) {
        return std::unexpected(address.error());
    }
    s.username = env("VARRO_MQTT_USERNAME");
    s.password = env("VARRO_MQTT_PASSWORD");
    if (std::string file = env("VARRO_MQTT_PASSWORD_FILE"); !file.empty()) {
        auto password = read_password(file);
        if (!password) {
            return std::unexpected(password.error());
        }
        s.password = *password;
    }
    if (!s.password.empty() && s.username.empty()) {
        return std::unexpected("a broker password needs VARRO_MQTT_USERNAME");
    }
    s.cafile = env("VARRO_MQTT_CAFILE");
    s.certfile = env("VARRO_MQTT_CERTFILE");
    s.keyfile = env("VARRO_MQTT_KEYFILE");
    if (!s.tls && !(s.cafile + s.certfile + s.keyfile).empty()) {
        return std::unexpected("VARRO_MQTT_CAFILE, _CERTFILE and _KEYFILE need an mqtts:// URL");
    }
    if (std::string qos = env("VARRO_MQTT_QOS"); !qos.empty()) {
        auto number = whole_number(qos, 1, 2);
        if (!number) {
            return std::unexpected("VARRO_MQTT_QOS is not 1 or 2: " + qos);
        }
        s.qos = static_cast<int>(*number);
    }
    if (std::string keepalive = env("VARRO_MQTT_KEEPALIVE"); !keepalive.empty()) {
        auto number = whole_number(keepalive, 5, 65535);
        if (!number) {
            return std::unexpected("VARRO_MQTT_KEEPALIVE is not a number of seconds in 5-65535: " +
                                   keepalive);
        }
        s.keepalive = static_cast<int>(*number);
    }
    if (std::string bytes = env("VARRO_MQTT_MAX_PENDING_BYTES"); !bytes.empty()) {
        auto number = whole_number(bytes, 4096, 1ll << 40);
        if (!number) {
            return std::unexpected(
                "VARRO_MQTT_MAX_PENDING_BYTES is not a number of bytes of at least 4096: " + bytes);
        }
        s.max_pending_bytes = static_cast<uint64_t>(*number);
    }
    if (std::string delays = env("VARRO_MQTT_RECONNECT_DELAY");
        !delays.empty() && !parse_delays(delays, s, warnings)) {
        return std::unexpected("VARRO_MQTT_RECONNECT_DELAY is not MIN[:MAX] in seconds: " + delays);
    }
    s.client_id = env("VARRO_MQTT_CLIENT_ID");
    if (s.client_id.empty()) {
        std::string machine = read_first_line("/etc/machine-id");
        if (machine.empty()) {
            char host[256] = "";
            gethostname(host, sizeof(host) - 1);
            machine = host;
            warnings.push_back(
                "no /etc/machine-id: the MQTT client id is made from the host name; set "
                "VARRO_MQTT_CLIENT_ID where devices share one");
        }
        s.client_id = mqtt_settings_client_id(client_name, machine);
    }
    return s;
}

std::string mqtt_settings_client_id(const std::string& client_name, const std::string& machine_id) {
    std::string name = client_name.empty() ? "varro" : client_name;
    std::string text = machine_id + '\0' + name;
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    EVP_Digest(text.data(), text.size(), digest, &size, EVP_sha256(), nullptr);
    char hex[17];
    for (int i = 0; i < 8; ++i) {
        snprintf(hex + 2 * i, 3, "%02x", digest[i]);
    }
    return name + "-" + hex;
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
    bool v6 = s.host.find(':') != std::string::npos;
    return (v6 ? "[" + s.host + "]" : s.host) + ":" + std::to_string(s.port);
}

}  // namespace tessel_os_varro
