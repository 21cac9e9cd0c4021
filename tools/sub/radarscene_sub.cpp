// radarscene-sub: subscribes to a radar channel of the running provider and
// prints its scenes, a summary of them, or statistics of the stream.

#include "recorder.h"
#include "toolsubscriber.h"
#include "toolutil.h"

#include <radarscene/RadarScene.h>
#include <radarscene/scene.pb.h>

#include <google/protobuf/util/json_util.h>
#include <systemd/sd-bus.h>

#include <getopt.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdarg>
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
    RadarScene::SubscriberConfig subscriber;
    bool summary = false;
    bool stats = false;
    long long count = -1;
    double duration = -1;
    double wait = 0;
    std::string record;
    mcap_writer_options_t mcap;
    bool mcap_options = false;
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
                options.subscriber.channel =
                    static_cast<int>(tool_integer(value, "--channel", 0, 15));
                break;
            case BBOX:
                options.subscriber.bounding_box = true;
                break;
            case POLYGON:
                options.subscriber.polygon = true;
                break;
            case VELOCITY:
                options.subscriber.velocity = true;
                break;
            case GEO:
                options.subscriber.geolocation = true;
                break;
            case RAW:
                options.subscriber.raw = true;
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
                options.subscriber.follow = true;
                break;
            case COMPRESSION:
                options.mcap_options = true;
                if (auto named = mcap_compression_named(value)) {
                    options.mcap.compression = *named;
                } else {
                    tool_fail("--compression needs zstd, lz4 or none, not '%s'", value);
                }
                break;
            case CHUNK:
                options.mcap_options = true;
                options.mcap.chunk_ns = static_cast<uint64_t>(
                    tool_number(value, "--chunk-seconds", 0.001, 86400) * 1e9);
                break;
        }
    });
    tool_no_arguments(argc, argv);
    if (options.summary && options.stats) {
        tool_fail("--summary and --stats cannot be used together (see --help)");
    }
    if (options.mcap_options && !recording_is_mcap(options.record)) {
        tool_fail("--compression and --chunk-seconds need --record FILE.mcap (see --help)");
    }
    return options;
}

void appendf(std::string& out, const char* format, ...) __attribute__((format(printf, 2, 3)));
void appendf(std::string& out, const char* format, ...) {
    char line[512];
    va_list args;
    va_start(args, format);
    int n = vsnprintf(line, sizeof line, format, args);
    va_end(args);
    out.append(line, static_cast<size_t>(std::clamp(n, 0, static_cast<int>(sizeof line) - 1)));
}

// Standard output that never holds up a stop signal: each piece is written once the output takes
// it whole, while SIGINT and SIGTERM are watched. A closed output (a reader that left, as
// `| head -1` does) and a stop signal both end the stream; so does an output that takes nothing
// for `timeout_ms` (-1: no limit).
enum output_t { OUTPUT_OK, OUTPUT_STOPPED, OUTPUT_CLOSED };

output_t emit(const std::string& text, int stop_fd, int timeout_ms = -1) {
    for (size_t done = 0; done < text.size();) {
        pollfd fds[2] = {{STDOUT_FILENO, POLLOUT, 0}, {stop_fd, POLLIN, 0}};
        int ready = poll(fds, 2, timeout_ms);
        if (ready < 0) {
            continue;
        }
        if (ready == 0 || fds[1].revents) {
            return OUTPUT_STOPPED;
        }
        ssize_t n = write(STDOUT_FILENO, text.data() + done,
                          std::min<size_t>(text.size() - done, PIPE_BUF));
        if (n < 0 && errno != EINTR && errno != EAGAIN) {
            if (errno != EPIPE) {
                fprintf(stderr, "radarscene-sub: cannot write the output: %s\n", strerror(errno));
            }
            return OUTPUT_CLOSED;
        }
        done += n > 0 ? static_cast<size_t>(n) : 0;
    }
    return OUTPUT_OK;
}

void format_json(std::string& out, const RadarScene::Scene& scene) {
    std::string line;
    if (!google::protobuf::util::MessageToJsonString(scene, &line).ok()) {
        tool_fail("cannot render a scene as JSON");
    }
    out += line + "\n";
}

void format_summary(std::string& out, const RadarScene::Scene& scene,
                    const std::map<int32_t, std::string>& names) {
    appendf(out, "t=%.3f s  %d objects\n", static_cast<double>(scene.time()) / 1e9,
            scene.objects_size());
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
        appendf(out, "  #%-4u %-20s", o.id(), classes.empty() ? "-" : classes.c_str());
        if (o.has_position()) {
            appendf(out, "  %6.1f m at %6.1f deg", o.position().x(), o.position().y());
        }
        const RadarScene::Velocity* v = o.has_velocity3d() ? &o.velocity3d()
                                        : o.has_velocity() ? &o.velocity()
                                                           : nullptr;
        if (v) {
            appendf(out, "  %5.2f m/s", std::hypot(v->vx(), v->vy(), v->vz()));
        }
        if (o.has_geoposition()) {
            const RadarScene::GeoPosition& g = o.geoposition();
            appendf(out, "  %.6f, %.6f", g.has_dlat() ? g.dlat() : g.lat(),
                    g.has_dlon() ? g.dlon() : g.lon());
        }
        out += "\n";
    }
}

// Figures of the last second: rates, objects per scene, the delay from the
// producer's push (the scene's monotonic time) to reception, and scenes that
// the time stamps show to be missing (counted by the subscriber). Scene times
// more than a minute off this machine's monotonic clock (a recording of
// another boot, another machine's clock) give no delay: it is shown as unknown.
struct stream_stats {
    uint64_t scenes = 0;
    uint64_t bytes = 0;
    uint64_t objects = 0;
    uint64_t missing_before = 0;  // the subscriber's count at the last line
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
    }

    std::string line(double seconds, uint64_t missing) {
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
        std::string out;
        appendf(out, "%.1f scenes/s  %.0f bytes/s  %.1f objects/scene  %s  missing %llu\n",
                static_cast<double>(scenes) / seconds, static_cast<double>(bytes) / seconds,
                scenes ? static_cast<double>(objects) / static_cast<double>(scenes) : 0.0, delay,
                static_cast<unsigned long long>(missing - missing_before));
        *this = stream_stats{0, 0, 0, missing, {}};
        return out;
    }
};

// How the stream ended: 0 when asked to (a signal, --count, --duration, a closed output),
// else 1 with the reason said on standard error.
struct run_t {
    run_t(const options_t& o, int stop, RadarScene::Subscriber& s, Recorder* r)
        : options(o), stop_fd(stop), subscriber(s), recorder(r) {}

    const options_t& options;
    int stop_fd;
    RadarScene::Subscriber& subscriber;
    Recorder* recorder;
    std::map<int32_t, std::string> names;
    stream_stats stats;
    uint64_t started = tool_monotonic_ns();
    uint64_t next_stats = started + 1'000'000'000;
    uint64_t gone_since = 0;  // when the provider went away, while --reconnect waits
    long long received = 0;
    RadarScene::Scene scene;
    std::string payload;
    std::string failure;
    bool recorder_failed = false;
    bool done = false;

    void fail(std::string reason) {
        failure = std::move(reason);
        done = true;
    }

    void output(const std::string& text) {
        if (!done && emit(text, stop_fd) != OUTPUT_OK) {
            done = true;
        }
    }

    void take_scene() {
        ++received;
        bool decoded = scene.ParseFromString(payload);
        if (recorder) {
            try {
                recorder->add(payload, decoded ? scene.time() : 0);
            } catch (const std::exception& e) {
                recorder_failed = true;
                return fail(e.what());
            }
        }
        if (!decoded) {
            fprintf(stderr, "radarscene-sub: undecodable scene of %zu bytes\n", payload.size());
        } else if (options.stats) {
            stats.add(scene, payload.size(), tool_monotonic_ns());
        } else {
            std::string text;
            options.summary ? format_summary(text, scene, names) : format_json(text, scene);
            output(text);
        }
        done = done || (options.count >= 0 && received >= options.count);
    }

    void take_state(RadarScene::ReadResult r) {
        if (r == RadarScene::ReadResult::ENDED) {
            return fail(subscriber.error());
        }
        if (subscriber.state() == RadarScene::SubscriberState::PROVIDER_GONE) {
            fprintf(stderr,
                    "radarscene-sub: the provider went away; waiting for it to come back\n");
            gone_since = tool_monotonic_ns();
        } else {
            fprintf(stderr, "radarscene-sub: subscribed again\n");
            gone_since = 0;
        }
    }

    int timeout_ms(uint64_t now) const {
        int64_t timeout = 1000;
        if (options.stats) {
            timeout = static_cast<int64_t>(next_stats - now) / 1'000'000;
        }
        if (options.duration >= 0) {
            timeout = std::min<int64_t>(
                timeout,
                static_cast<int64_t>(started + options.duration * 1e9 - now) / 1'000'000 + 1);
        }
        if (recorder) {
            timeout = std::min<int64_t>(timeout, 250);
        }
        return static_cast<int>(std::max<int64_t>(timeout, 0));
    }

    void loop() {
        while (!done) {
            uint64_t now = tool_monotonic_ns();
            if (options.duration >= 0 && now - started >= options.duration * 1e9) {
                break;
            }
            if (gone_since && options.wait > 0 && now - gone_since >= options.wait * 1e9) {
                return fail("the provider did not come back within --wait");
            }
            pollfd fds[2] = {{subscriber.fd(), POLLIN, 0}, {stop_fd, POLLIN, 0}};
            if (poll(fds, 2, timeout_ms(now)) < 0 && errno != EINTR) {
                tool_fail("poll: %s", strerror(errno));
            }
            if (recorder) {
                recorder->tick();
            }
            if (fds[1].revents) {
                break;
            }
            if (options.stats && tool_monotonic_ns() >= next_stats) {
                output(stats.line(1.0, subscriber.stats().missing));
                next_stats += 1'000'000'000;
            }
            for (RadarScene::ReadResult r;
                 !done && (r = subscriber.readNow(payload)) != RadarScene::ReadResult::NOTHING;) {
                r == RadarScene::ReadResult::SCENE ? take_scene() : take_state(r);
            }
        }
        if (options.stats && (stats.scenes > 0 || next_stats == started + 1'000'000'000)) {
            // The figures since the last line, however the run ended.
            uint64_t since = next_stats - 1'000'000'000;
            double seconds = std::max(1e-3, static_cast<double>(tool_monotonic_ns() - since) / 1e9);
            // Also after a stop signal, but never blocked for long.
            emit(stats.line(seconds, subscriber.stats().missing), -1, 1000);
        }
    }
};

int run(const options_t& options) {
    std::unique_ptr<Recorder> recorder;
    if (!options.record.empty()) {
        recorder = open_recorder({options.record, options.subscriber.channel,
                                  tool_features(options.subscriber), options.mcap});
    }
    int stop_fd = tool_stop_signals();
    // A reader that goes away is seen as EPIPE on the next write.
    signal(SIGPIPE, SIG_IGN);
    if (options.subscriber.geolocation) {
        tool_note_missing_geolocation();
    }
    std::optional<RadarScene::Subscriber> subscriber =
        tool_open_subscriber(options.subscriber, options.wait, stop_fd);
    std::string failure;
    bool recorder_failed = false;
    if (subscriber) {
        run_t running(options, stop_fd, *subscriber, recorder.get());
        if (options.summary) {
            running.names = tool_class_names(options.subscriber.channel, stop_fd);
        }
        running.loop();
        failure = running.failure;
        recorder_failed = running.recorder_failed;
        subscriber->close();
    }
    if (!failure.empty()) {
        fprintf(stderr, "radarscene-sub: %s\n", failure.c_str());
    }
    if (recorder && !recorder_failed) {
        recorder->finish();
        fprintf(stderr, "radarscene-sub: recorded %llu scenes to %s\n",
                static_cast<unsigned long long>(recorder->scenes), options.record.c_str());
    }
    return failure.empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    tool_init("radarscene-sub");
    const options_t options = parse_options(argc, argv);
    return tool_run([&] { return run(options); });
}
