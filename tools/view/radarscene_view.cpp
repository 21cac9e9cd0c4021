// radarscene-view: shows a radar channel live, in a browser page of its own
// and in any viewer that speaks the Foxglove WebSocket protocol.

#include "foxglove.h"
#include "scenedescriptor.h"
#include "sceneview.h"
#include "toolsubscriber.h"
#include "toolutil.h"
#include "viewserver.h"

#include <radarscene/RadarScene.h>
#include <radarscene/scene.pb.h>

#include <limits.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <thread>

namespace {

constexpr const char* USAGE = R"(Usage: radarscene-view [OPTION]...
Subscribes to a channel of the radar scene provider on the system bus and
shows it: a bird's-eye page at http://ADDRESS:PORT/, and the Foxglove
WebSocket protocol on the same port for other viewers.

      --channel N        radar channel (default 0)
      --wait S           wait up to S seconds for the provider to appear
      --listen ADDR:PORT where to serve: an IPv4 or IPv6 address ([ADDR] for
                         IPv6) or a name that resolves (default 127.0.0.1:8765;
                         port 0 picks a free one); beyond the loopback address
                         it needs --tls-cert, --tls-key and --secret-file
      --tls-cert FILE    serve HTTPS and WSS with this certificate (PEM)...
      --tls-key FILE     ...and its private key (PEM)
      --secret-file FILE every request needs the secret in this file: as
                         "Authorization: Bearer SECRET", as ?token=SECRET in
                         the address, or the cookie the page gets for it
      --insecure-listener
                         allow listening beyond the loopback address without
                         TLS or secret: whoever reaches the port sees the radar
      --allow-origin ORIGIN
                         also serve pages of ORIGIN (scheme://host:port), for
                         example a tunnel's local end; repeatable
      --max-clients N    viewers served at once (default 16)
      --max-per-address N
                         connections from one address at once (default 8)
      --web-root DIR     the page's files (default: )" RADARSCENE_VIEW_WEB_ROOT R"( from
                         the folder that holds radarscene-view)
  -h, --help             show this text and exit
      --version          show the version and exit
)";

enum channel_id_t : uint32_t { SCENES = 1, SCENE_UPDATE = 2, LOCATION = 3, VIEW = 4 };

struct options_t {
    int channel = 0;
    double wait = 0;
    view_server_options_t server;
};

// The page's files as installed, found from the program's own folder.
std::string installed_web_root() {
    char path[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
    std::string program(path, n > 0 ? static_cast<size_t>(n) : 0);
    return program.substr(0, program.rfind('/') + 1) + RADARSCENE_VIEW_WEB_ROOT;
}

// "ADDRESS:PORT" or "[IPV6]:PORT".
void parse_listen(const char* value, view_server_options_t& server) {
    std::string text = value;
    size_t colon = text.rfind(':');
    bool bracketed = !text.empty() && text.front() == '[';
    size_t close = text.find(']');
    if (colon == std::string::npos || colon == 0 ||
        (bracketed && (close == std::string::npos || close + 1 != colon))) {
        tool_fail("--listen needs ADDRESS:PORT ([ADDRESS]:PORT for IPv6), not '%s'", value);
    }
    server.address = bracketed ? text.substr(1, close - 1) : text.substr(0, colon);
    server.port = static_cast<int>(tool_integer(value + colon + 1, "--listen", 0, 65535));
}

// The secret in `file`, without the line end that editors add. It never
// appears on a command line, where every user of the machine would see it.
std::string read_secret(const char* file) {
    FILE* f = fopen(file, "re");
    if (!f) {
        tool_fail("cannot read %s: %s", file, strerror(errno));
    }
    char buffer[1025];
    size_t n = fread(buffer, 1, sizeof buffer, f);
    bool failed = ferror(f);
    fclose(f);
    std::string secret(buffer, n);
    while (!secret.empty() && (secret.back() == '\n' || secret.back() == '\r')) {
        secret.pop_back();
    }
    if (failed || n == sizeof buffer || secret.size() < 16 ||
        secret.find_first_of(" \t\r\n&;=%+#") != std::string::npos) {
        tool_fail(
            "%s: the secret must be one line of 16 to 1024 characters, without blanks "
            "or any of &;=%%+#",
            file);
    }
    return secret;
}

// "scheme://host[:port]", kept in lower case without a final slash.
std::string parse_origin(const char* value) {
    std::string origin = value;
    while (!origin.empty() && origin.back() == '/') {
        origin.pop_back();
    }
    if (origin.find("://") == std::string::npos ||
        origin.find('/', origin.find("://") + 3) != std::string::npos) {
        tool_fail("--allow-origin needs SCHEME://HOST:PORT, not '%s'", value);
    }
    for (char& c : origin) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return origin;
}

options_t parse_options(int argc, char** argv) {
    enum {
        CHANNEL = 1,
        WAIT,
        LISTEN,
        MAX_CLIENTS,
        WEB_ROOT,
        TLS_CERT,
        TLS_KEY,
        SECRET_FILE,
        INSECURE,
        ALLOW_ORIGIN,
        MAX_PER_ADDRESS
    };
    static const option long_options[] = {
        {"channel", required_argument, nullptr, CHANNEL},
        {"wait", required_argument, nullptr, WAIT},
        {"listen", required_argument, nullptr, LISTEN},
        {"max-clients", required_argument, nullptr, MAX_CLIENTS},
        {"web-root", required_argument, nullptr, WEB_ROOT},
        {"tls-cert", required_argument, nullptr, TLS_CERT},
        {"tls-key", required_argument, nullptr, TLS_KEY},
        {"secret-file", required_argument, nullptr, SECRET_FILE},
        {"insecure-listener", no_argument, nullptr, INSECURE},
        {"allow-origin", required_argument, nullptr, ALLOW_ORIGIN},
        {"max-per-address", required_argument, nullptr, MAX_PER_ADDRESS},
        {nullptr, 0, nullptr, 0}};
    options_t options;
    options.server.web_root = installed_web_root();
    tool_parse_options(argc, argv, long_options, USAGE, [&](int option, const char* value) {
        switch (option) {
            case CHANNEL:
                options.channel = static_cast<int>(tool_integer(value, "--channel", 0, 15));
                break;
            case WAIT:
                options.wait = tool_number(value, "--wait", 0, 3600);
                break;
            case LISTEN:
                parse_listen(value, options.server);
                break;
            case MAX_CLIENTS:
                options.server.max_clients =
                    static_cast<size_t>(tool_integer(value, "--max-clients", 1, 1000));
                break;
            case WEB_ROOT:
                options.server.web_root = value;
                break;
            case TLS_CERT:
                options.server.tls_cert = value;
                break;
            case TLS_KEY:
                options.server.tls_key = value;
                break;
            case SECRET_FILE:
                options.server.secret = read_secret(value);
                break;
            case INSECURE:
                options.server.insecure_listener = true;
                break;
            case ALLOW_ORIGIN:
                options.server.allowed_origins.push_back(parse_origin(value));
                break;
            case MAX_PER_ADDRESS:
                options.server.max_per_address =
                    static_cast<size_t>(tool_integer(value, "--max-per-address", 1, 1000));
                break;
        }
    });
    tool_no_arguments(argc, argv);
    if (options.server.tls_cert.empty() != options.server.tls_key.empty()) {
        tool_fail("--tls-cert and --tls-key go together");
    }
    return options;
}

std::vector<foxglove_channel_t> channels(int radar) {
    std::string prefix = "/radar/" + std::to_string(radar) + "/";
    return {
        {SCENES, prefix + "scene", "protobuf", "RadarScene.Scene",
         foxglove_base64(scene_descriptor_set()), "protobuf"},
        {SCENE_UPDATE, prefix + "scene_update", "json", "foxglove.SceneUpdate", SCENE_UPDATE_SCHEMA,
         "jsonschema"},
        {LOCATION, prefix + "location", "json", "foxglove.LocationFix", LOCATION_FIX_SCHEMA,
         "jsonschema"},
        {VIEW, prefix + "view", "json", "radarscene.SceneView", SCENE_VIEW_SCHEMA, "jsonschema"}};
}

uint64_t wall_clock_ns() {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(now.tv_nsec);
}

// Hands one scene to the channels that have viewers, converting only for those.
void show(ViewServer& server, const std::string& payload, const class_names_t& names) {
    uint64_t received = tool_monotonic_ns();
    uint64_t stamp = wall_clock_ns();
    if (server.wanted(SCENES)) {
        server.publish(SCENES, stamp, payload);
    }
    RadarScene::Scene scene;
    bool converted = server.wanted(SCENE_UPDATE) || server.wanted(LOCATION) || server.wanted(VIEW);
    if (!converted || !scene.ParseFromString(payload)) {
        return;
    }
    if (server.wanted(SCENE_UPDATE)) {
        server.publish(SCENE_UPDATE, stamp, scene_update_json(scene, names, stamp));
    }
    if (server.wanted(LOCATION)) {
        if (auto fix = location_fix_json(stamp)) {
            server.publish(LOCATION, stamp, *fix);
        }
    }
    if (server.wanted(VIEW)) {
        double delay_ms = static_cast<double>(static_cast<int64_t>(received - scene.time())) / 1e6;
        server.publish(VIEW, stamp, scene_view_json(scene, names, delay_ms));
    }
}

// Boxes, polygons, velocities and geographic positions; the provider is followed for ever.
RadarScene::SubscriberConfig subscriber_config(int channel) {
    return {.channel = channel,
            .bounding_box = true,
            .polygon = true,
            .velocity = true,
            .geolocation = true,
            .follow = true};
}

// The subscriber's side, on a thread of its own: hands every scene to the
// server, follows the provider when it goes and comes back, and stops the
// server on SIGINT or SIGTERM.
void follow(ViewServer& server, RadarScene::Subscriber& subscriber, int channel, int stop_fd) {
    std::string payload;
    server.broadcast(FOXGLOVE_INFO, "showing radar channel " + std::to_string(channel));
    class_names_t names = tool_class_names(channel, stop_fd);
    for (bool ended = false; !ended;) {
        pollfd fds[2] = {{subscriber.fd(), POLLIN, 0}, {stop_fd, POLLIN, 0}};
        if (poll(fds, 2, -1) < 0 && errno != EINTR) {
            tool_fail("poll: %s", strerror(errno));
        }
        if (fds[1].revents) {
            break;
        }
        for (RadarScene::ReadResult r;
             !ended && (r = subscriber.readNow(payload)) != RadarScene::ReadResult::NOTHING;) {
            if (r == RadarScene::ReadResult::SCENE) {
                show(server, payload, names);
            } else if (r == RadarScene::ReadResult::ENDED) {
                fprintf(stderr, "radarscene-view: %s\n", subscriber.error().c_str());
                ended = true;
            } else if (subscriber.state() == RadarScene::SubscriberState::PROVIDER_GONE) {
                fprintf(stderr,
                        "radarscene-view: the provider went away; waiting for it to come back\n");
                server.broadcast(FOXGLOVE_WARNING,
                                 "the radar scene provider went away; waiting for it to come back");
            } else {
                server.broadcast(FOXGLOVE_INFO, "showing radar channel " + std::to_string(channel));
                names = tool_class_names(channel, stop_fd);
            }
        }
    }
    subscriber.close();
    server.stop();
}

int run(const options_t& options) {
    int stop_fd = tool_stop_signals();
    ViewServer server(options.server, channels(options.channel));
    bool ipv6 = server.address().find(':') != std::string::npos;
    fprintf(stderr, "radarscene-view: serving %s://%s%s%s:%d/\n", server.scheme(), ipv6 ? "[" : "",
            server.address().c_str(), ipv6 ? "]" : "", server.port());
    // The first subscription is made here, so that its failure ends the tool
    // before any other thread runs; the subscriber then belongs to its thread.
    auto subscription =
        tool_open_subscriber(subscriber_config(options.channel), options.wait, stop_fd);
    if (subscription) {
        std::thread subscriber([&] { follow(server, *subscription, options.channel, stop_fd); });
        server.run();
        subscriber.join();
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    tool_init("radarscene-view");
    const options_t options = parse_options(argc, argv);
    return tool_run([&] { return run(options); });
}
