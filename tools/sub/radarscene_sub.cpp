// radarscene-sub: subscribes to a radar channel of the running provider and
// prints its scenes, a summary of them, or statistics of the stream.

#include "recorder.h"
#include "subscription.h"
#include "toolutil.h"

#include <radarscene/RadarScene.h>
#include <radarscene/scene.pb.h>

#include <google/protobuf/util/json_util.h>
#include <systemd/sd-bus.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <getopt.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace {

constexpr const char* USAGE = R"(Usage: radarscene-sub [OPTION]...
Subscribes to a channel of the radar scene provider on the system bus and
prints every scene as one JSON line.

      --channel N      radar channel (default 0)
      --bbox           ask for bounding boxes
      --polygon        ask for polygons
      --velocity       ask for velocities
      --geo            ask for geographic positions
      --raw            ask for unfiltered scenes (no class filter)
      --summary        print a readable summary per scene instead of JSON
      --stats          print stream statistics once a second instead of scenes
      --count N        stop after N scenes
      --duration S     stop after S seconds
      --record FILE    also write the scenes, exactly as received, to FILE: an
                       MCAP recording when FILE ends in .mcap (in any case),
                       else the records
      --compression C  chunk compression of an MCAP recording: zstd (default),
                       lz4 or none
      --chunk-seconds S
                       close an MCAP recording's chunk once it spans S seconds
                       of scenes (default 1): a crash loses at most that
      --wait S         wait up to S seconds for the provider to appear
      --reconnect      when the provider goes away, subscribe again once it is
                       back (waiting up to the --wait time, or for ever)
  -h, --help           show this text and exit
      --version        show the version and exit
)";

struct options_t {
    int channel = 0;
    std::map<std::string, bool> features;
    bool summary = false;
    bool stats = false;
    long long count = -1;
    double duration = -1;
    double wait = 0;
    bool reconnect = false;
    std::string record;
    mcap_writer_options_t mcap;
};

options_t parse_options(int argc, char** argv) {
    enum {
        CHANNEL = 1,
        BBOX,
        POLYGON,
        VELOCITY,
        GEO,
        RAW,
        SUMMARY,
        STATS,
        COUNT,
        DURATION,
        RECORD,
        WAIT,
        RECONNECT,
        COMPRESSION,
        CHUNK
    };
    static const option long_options[] = {{"channel", required_argument, nullptr, CHANNEL},
                                          {"bbox", no_argument, nullptr, BBOX},
                                          {"polygon", no_argument, nullptr, POLYGON},
                                          {"velocity", no_argument, nullptr, VELOCITY},
                                          {"geo", no_argument, nullptr, GEO},
                                          {"raw", no_argument, nullptr, RAW},
                                          {"summary", no_argument, nullptr, SUMMARY},
                                          {"stats", no_argument, nullptr, STATS},
                                          {"count", required_argument, nullptr, COUNT},
                                          {"duration", required_argument, nullptr, DURATION},
                                          {"record", required_argument, nullptr, RECORD},
                                          {"compression", required_argument, nullptr, COMPRESSION},
                                          {"chunk-seconds", required_argument, nullptr, CHUNK},
                                          {"wait", required_argument, nullptr, WAIT},
                                          {"reconnect", no_argument, nullptr, RECONNECT},
                                          {nullptr, 0, nullptr, 0}};
    options_t options;
    tool_parse_options(argc, argv, long_options, USAGE, [&](int option, const char* value) {
        switch (option) {
            case CHANNEL:
                options.channel = static_cast<int>(tool_integer(value, "--channel", 0, 15));
                break;
            case BBOX:
                options.features["BOUNDINGBOX_ENABLED"] = true;
                break;
            case POLYGON:
                options.features["POLYGON_ENABLED"] = true;
                break;
            case VELOCITY:
                options.features["VELOCITY_ENABLED"] = true;
                break;
            case GEO:
                options.features["GEOLOCATION_ENABLED"] = true;
                break;
            case RAW:
                options.features["RAW_ENABLED"] = true;
                break;
            case SUMMARY:
                options.summary = true;
                break;
            case STATS:
                options.stats = true;
                break;
            case COUNT:
                options.count = tool_integer(value, "--count", 1, 1'000'000'000'000);
                break;
            case DURATION:
                options.duration = tool_number(value, "--duration", 0, 1e9);
                break;
            case RECORD:
                options.record = value;
                break;
            case WAIT:
                options.wait = tool_number(value, "--wait", 0, 3600);
                break;
            case RECONNECT:
                options.reconnect = true;
                break;
            case COMPRESSION:
                if (auto named = mcap_compression_named(value)) {
                    options.mcap.compression = *named;
                } else {
                    tool_fail("--compression needs zstd, lz4 or none, not '%s'", value);
                }
                break;
            case CHUNK:
                options.mcap.chunk_ns = static_cast<uint64_t>(
                    tool_number(value, "--chunk-seconds", 0.001, 86400) * 1e9);
                break;
        }
    });
    tool_no_arguments(argc, argv);
    return options;
}

void print_json(const RadarScene::Scene& scene) {
    std::string line;
    if (!google::protobuf::util::MessageToJsonString(scene, &line).ok()) {
        tool_fail("cannot render a scene as JSON");
    }
    printf("%s\n", line.c_str());
}

void print_summary(const RadarScene::Scene& scene, const std::map<int32_t, std::string>& names) {
    printf("t=%.3f s  %d objects\n", static_cast<double>(scene.time()) / 1e9, scene.objects_size());
    for (const RadarScene::Object& o : scene.objects()) {
        std::string classes;
        for (const RadarScene::Label& label : o.labels().labels()) {
            auto it = names.find(static_cast<int32_t>(label.id()));
            classes += (classes.empty() ? "" : ",") +
                       (it != names.end() ? it->second : std::to_string(label.id()));
            if (label.has_confidence()) {
                classes += "(" +
                           std::to_string(static_cast<int>(std::lround(label.confidence() * 100))) +
                           "%)";
            }
        }
        printf("  #%-4u %-20s", o.id(), classes.empty() ? "-" : classes.c_str());
        if (o.has_position()) {
            printf("  %6.1f m at %6.1f deg", o.position().x(), o.position().y());
        }
        const RadarScene::Velocity* v = o.has_velocity3d() ? &o.velocity3d()
                                        : o.has_velocity() ? &o.velocity()
                                                           : nullptr;
        if (v) {
            printf("  %5.2f m/s", std::hypot(v->vx(), v->vy(), v->vz()));
        }
        if (o.has_geoposition()) {
            const RadarScene::GeoPosition& g = o.geoposition();
            printf("  %.6f, %.6f", g.has_dlat() ? g.dlat() : g.lat(),
                   g.has_dlon() ? g.dlon() : g.lon());
        }
        printf("\n");
    }
}

// Figures of the last second: rates, objects per scene, the delay from the
// producer's push (the scene's monotonic time) to reception, and scenes that
// the time stamps show to be missing. Scene times more than a minute off
// this machine's monotonic clock (a recording of another boot, another
// machine's clock) give no delay: it is shown as unknown.
struct stream_stats {
    uint64_t scenes = 0;
    uint64_t bytes = 0;
    uint64_t objects = 0;
    uint64_t missing = 0;
    uint64_t last_time = 0;
    double period = 0;  // smoothed interval between scenes, in ns
    std::vector<double> delays_ms;

    void add(const RadarScene::Scene& scene, size_t size, uint64_t received_ns) {
        ++scenes;
        bytes += size + 4;
        objects += static_cast<uint64_t>(scene.objects_size());
        double delay_ms =
            static_cast<double>(static_cast<int64_t>(received_ns - scene.time())) / 1e6;
        if (delay_ms > -1e3 && delay_ms < 60e3) {
            delays_ms.push_back(delay_ms);
        }
        if (last_time != 0 && scene.time() > last_time) {
            double gap = static_cast<double>(scene.time() - last_time);
            if (period > 0 && gap > 1.5 * period) {
                missing += static_cast<uint64_t>(std::lround(gap / period)) - 1;
            } else {
                period = period > 0 ? 0.9 * period + 0.1 * gap : gap;
            }
        }
        last_time = scene.time();
    }

    void print(double seconds) {
        std::sort(delays_ms.begin(), delays_ms.end());
        auto quantile = [&](double q) {
            return delays_ms.empty() ? 0.0
                                     : delays_ms[static_cast<size_t>(q * (delays_ms.size() - 1))];
        };
        char delay[96] = "delay unknown";
        if (!delays_ms.empty()) {
            snprintf(delay, sizeof(delay), "delay ms p50 %.2f p99 %.2f max %.2f", quantile(0.5),
                     quantile(0.99), delays_ms.back());
        }
        printf("%.1f scenes/s  %.0f bytes/s  %.1f objects/scene  %s  missing %llu\n",
               static_cast<double>(scenes) / seconds, static_cast<double>(bytes) / seconds,
               scenes ? static_cast<double>(objects) / static_cast<double>(scenes) : 0.0, delay,
               static_cast<unsigned long long>(missing));
        fflush(stdout);
        *this = stream_stats{0, 0, 0, 0, last_time, period, {}};
    }
};

int run(const options_t& options) {
    std::unique_ptr<Recorder> recorder;
    if (!options.record.empty()) {
        recorder = open_recorder({options.record, options.channel, options.features, options.mcap});
    }
    int stop_fd = tool_stop_signals();
    sd_bus* bus = tool_system_bus();
    if (options.features.count("GEOLOCATION_ENABLED")) {
        tool_note_missing_geolocation();
    }
    std::optional<tool_subscription_t> subscription =
        tool_subscribe(bus, options.channel, options.features, options.wait, stop_fd);
    std::map<int32_t, std::string> names;
    if (subscription && options.summary) {
        names = tool_class_names(bus, options.channel, stop_fd);
    }

    uint64_t started = tool_monotonic_ns();
    uint64_t next_stats = started + 1'000'000'000;
    stream_stats stats;
    long long received = 0;
    int status = 0;
    std::string payload;
    RadarScene::Scene scene;
    while (subscription && (options.count < 0 || received < options.count)) {
        uint64_t now = tool_monotonic_ns();
        double elapsed = static_cast<double>(now - started) / 1e9;
        if (options.duration >= 0 && elapsed >= options.duration) {
            break;
        }
        int timeout_ms = 1000;
        if (options.stats) {
            timeout_ms = static_cast<int>(
                std::max<int64_t>(0, static_cast<int64_t>(next_stats - now) / 1'000'000));
        }
        if (options.duration >= 0) {
            timeout_ms =
                std::min(timeout_ms, static_cast<int>((options.duration - elapsed) * 1000) + 1);
        }
        if (recorder) {
            timeout_ms = std::min(timeout_ms, 250);
        }
        pollfd fds[2] = {{subscription->stream, POLLIN, 0}, {stop_fd, POLLIN, 0}};
        if (poll(fds, 2, timeout_ms) < 0 && errno != EINTR) {
            tool_fail("poll: %s", strerror(errno));
        }
        if (recorder) {
            recorder->tick();
        }
        if (fds[1].revents) {
            break;
        }
        if (options.stats && tool_monotonic_ns() >= next_stats) {
            stats.print(1.0);
            next_stats += 1'000'000'000;
        }
        if (!fds[0].revents) {
            continue;
        }
        int r = RadarScene::readSceneRecord(subscription->stream, payload);
        if (r <= 0) {
            close(subscription->stream);
            if (r < 0) {
                fprintf(stderr, "radarscene-sub: broken stream: %s\n", strerror(-r));
            } else {
                fprintf(stderr, "radarscene-sub: the provider closed the stream\n");
            }
            if (!options.reconnect) {
                status = 1;
                subscription.reset();
                break;
            }
            fprintf(stderr, "radarscene-sub: waiting for the provider to come back\n");
            subscription = tool_subscribe(bus, options.channel, options.features,
                                          options.wait > 0 ? options.wait : -1, stop_fd);
            continue;
        }
        ++received;
        bool decoded = scene.ParseFromString(payload);
        if (recorder) {
            recorder->add(payload, decoded ? scene.time() : 0);
        }
        if (!decoded) {
            fprintf(stderr, "radarscene-sub: undecodable scene of %zu bytes\n", payload.size());
            continue;
        }
        if (options.stats) {
            stats.add(scene, payload.size(), tool_monotonic_ns());
        } else if (options.summary) {
            print_summary(scene, names);
        } else {
            print_json(scene);
        }
        fflush(stdout);
    }
    if (options.stats && (stats.scenes > 0 || next_stats == started + 1'000'000'000)) {
        // The figures since the last line, however the run ended.
        uint64_t since = next_stats - 1'000'000'000;
        stats.print(std::max(1e-3, static_cast<double>(tool_monotonic_ns() - since) / 1e9));
    }
    if (subscription) {
        tool_unsubscribe(bus, subscription->session);
        close(subscription->stream);
    }
    sd_bus_flush_close_unref(bus);
    if (recorder) {
        recorder->finish();
        fprintf(stderr, "radarscene-sub: recorded %llu scenes to %s\n",
                static_cast<unsigned long long>(recorder->scenes), options.record.c_str());
    }
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    tool_init("radarscene-sub");
    const options_t options = parse_options(argc, argv);
    return tool_run([&] { return run(options); });
}
