// radarscene-replay: a producer that pushes the scenes of a recording made
// with `radarscene-sub --record` at the recorded rate.

#include "recording.h"
#include "toolutil.h"

#include <radarscene/RadarScene.h>
#include <radarscene/scene.pb.h>
#include <sdbus-c++/IConnection.h>
#include <systemd/sd-event.h>

#include <getopt.h>
#include <malloc.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr const char* USAGE = R"(Usage: radarscene-replay [OPTION]... FILE
Serves a radar scene provider on the system bus and pushes the scenes of
FILE, a recording made with radarscene-sub --record, at the recorded rate.
FILE may be an MCAP recording (told by its first bytes): one channel of its
RadarScene.Scene messages is pushed in log-time order, whatever the order of
its chunks; other channels and damaged records are skipped and counted.

      --rate HZ        push at HZ scenes per second instead
      --loop           start again at the end of the recording
      --delay S        wait S seconds before the first scene (default 0)
      --class ID=NAME  declare an object class (repeatable; default 1=Human, 2=Vehicle)
      --channel N      the radar channel to serve and, in an MCAP recording, to
                       replay (default: the recording's first, else 0)
      --topic TOPIC    MCAP: replay the scene channel with this topic, served as
                       the radar channel it names (else 0) or as --channel N
      --start S        MCAP: begin S seconds after the recording's start
      --end S          MCAP: stop S seconds after the recording's start
      --max-gap S      wait at most S seconds between scenes (default: as recorded)
      --max-open-chunks N
                       MCAP: chunks overlapping in log time read at once (default 4)
      --list           print each scene's log time and own time, in the order
                       they would be pushed, instead of serving them
  -h, --help           show this text and exit
      --version        show the version and exit
)";

struct options_t {
    int channel = -1;
    std::string topic;
    double start = 0;
    double end = -1;
    double max_gap = -1;
    size_t max_open_chunks = 4;
    double rate = 0;
    bool loop = false;
    bool list = false;
    double delay = 0;
    std::map<int, std::string> classes;
    std::string file;
};

options_t parse_options(int argc, char** argv) {
    enum {
        RATE = 1,
        LOOP,
        DELAY,
        CLASS,
        CHANNEL,
        TOPIC,
        START,
        END,
        MAX_GAP,
        MAX_OPEN_CHUNKS,
        LIST,
    };
    static const option long_options[] = {
        {"rate", required_argument, nullptr, RATE},
        {"loop", no_argument, nullptr, LOOP},
        {"delay", required_argument, nullptr, DELAY},
        {"class", required_argument, nullptr, CLASS},
        {"channel", required_argument, nullptr, CHANNEL},
        {"start", required_argument, nullptr, START},
        {"end", required_argument, nullptr, END},
        {"topic", required_argument, nullptr, TOPIC},
        {"max-gap", required_argument, nullptr, MAX_GAP},
        {"max-open-chunks", required_argument, nullptr, MAX_OPEN_CHUNKS},
        {"list", no_argument, nullptr, LIST},
        {nullptr, 0, nullptr, 0}};
    options_t options;
    tool_parse_options(argc, argv, long_options, USAGE, [&](int option, const char* value) {
        switch (option) {
            case RATE:
                options.rate = tool_number(value, "--rate", 0.001, 100'000);
                break;
            case LOOP:
                options.loop = true;
                break;
            case LIST:
                options.list = true;
                break;
            case DELAY:
                options.delay = tool_number(value, "--delay", 0, 3600);
                break;
            case CHANNEL:
                options.channel = static_cast<int>(tool_integer(value, "--channel", 0, 15));
                break;
            case START:
                options.start = tool_number(value, "--start", 0, 1e9);
                break;
            case END:
                options.end = tool_number(value, "--end", 0, 1e9);
                break;
            case TOPIC:
                if (!*value) {
                    tool_fail("--topic needs a topic");
                }
                options.topic = value;
                break;
            case MAX_GAP:
                options.max_gap = tool_number(value, "--max-gap", 0, 1e9);
                break;
            case MAX_OPEN_CHUNKS:
                options.max_open_chunks =
                    static_cast<size_t>(tool_integer(value, "--max-open-chunks", 1, 1024));
                break;
            case CLASS: {
                const char* equals = strchr(value, '=');
                if (!equals || equals == value || !equals[1]) {
                    tool_fail("--class needs ID=NAME, not '%s'", value);
                }
                std::string id(value, static_cast<size_t>(equals - value));
                options.classes[static_cast<int>(tool_integer(id.c_str(), "--class", 0, INT_MAX))] =
                    equals + 1;
                break;
            }
        }
    });
    if (optind + 1 != argc) {
        tool_fail("needs exactly one recording (see --help)");
    }
    options.file = argv[optind];
    if (options.classes.empty()) {
        options.classes = {{1, "Human"}, {2, "Vehicle"}};
    }
    return options;
}

// Pushes the current scene and reads the next, with one scene read ahead
// for the pause between them.
struct replay {
    Recording* recording;
    const options_t* options;
    RadarScene::Sink* sink = nullptr;
    int channel = 0;
    recorded_scene_t current{}, upcoming{};
    size_t pushed = 0;
    bool told = false;
    std::vector<std::pair<std::string, uint64_t>> skips{};  // of the first pass

    // Nanoseconds to wait after the current scene, whose successor is
    // `upcoming` when `in_order`.
    uint64_t pause(bool in_order) const {
        if (options->rate > 0) {
            return static_cast<uint64_t>(1e9 / options->rate);
        }
        if (!in_order || upcoming.time <= current.time) {
            return 0;
        }
        uint64_t gap = upcoming.time - current.time;
        return options->max_gap < 0 ? gap
                                    : std::min(gap, static_cast<uint64_t>(options->max_gap * 1e9));
    }

    static int on_timer(sd_event_source* source, uint64_t usec, void* self) {
        try {
            return static_cast<replay*>(self)->step(source, usec);
        } catch (const std::exception& e) {
            fprintf(stderr, "radarscene-replay: %s\n", e.what());
            return sd_event_exit(sd_event_source_get_event(source), 1);
        }
    }

    int step(sd_event_source* source, uint64_t usec) {
        sink->push(channel, std::string_view(current.payload));
        ++pushed;
        bool in_order = recording->next(upcoming);
        if (!in_order) {
            if (!std::exchange(told, true)) {
                recording->tell();
                skips = recording->skips();
            }
            if (!options->loop) {
                return sd_event_exit(sd_event_source_get_event(source), 0);
            }
            recording->rewind();
            if (!recording->next(upcoming)) {
                return sd_event_exit(sd_event_source_get_event(source), 0);
            }
        }
        sd_event_source_set_time(source, usec + pause(in_order) / 1000);
        std::swap(current, upcoming);
        return 0;
    }
};

// "pushed 10 scenes, skipped 3 (2 undecodable, 1 of other scene channels)"
void say_summary(const char* done, size_t pushed,
                 const std::vector<std::pair<std::string, uint64_t>>& skips) {
    uint64_t skipped = 0;
    std::string reasons;
    for (const auto& [reason, count] : skips) {
        skipped += count;
        reasons += (reasons.empty() ? " (" : ", ") + std::to_string(count) + " " + reason;
    }
    fprintf(stderr, "radarscene-replay: %s %zu scenes, skipped %llu%s\n", done, pushed,
            static_cast<unsigned long long>(skipped),
            reasons.empty() ? "" : (reasons + ")").c_str());
}

// Prints the scenes that a replay would push, one line each: log time and
// the scene's own time, in nanoseconds.
int list(Recording& recording) {
    recorded_scene_t scene;
    RadarScene::Scene decoded;
    size_t listed = 0;
    while (recording.next(scene)) {
        decoded.ParseFromString(scene.payload);
        printf("%llu %llu\n", static_cast<unsigned long long>(scene.time),
               static_cast<unsigned long long>(decoded.time()));
        ++listed;
    }
    if (!listed) {
        tool_fail("%s", recording.nothing().c_str());
    }
    recording.tell();
    say_summary("listed", listed, recording.skips());
    return fflush(stdout) == 0 ? 0 : 1;
}

int run(const options_t& options) {
    std::unique_ptr<Recording> recording = open_recording(
        options.file,
        {options.channel, options.topic, options.start, options.end, options.max_open_chunks});
    if (options.list) {
        return list(*recording);
    }
    replay state{recording.get(), &options};
    if (!recording->next(state.current)) {
        tool_fail("%s", recording->nothing().c_str());
    }
    state.channel = recording->channel;

    sd_event_owner loop = tool_event_loop();
    sd_event* event = loop.get();

    auto connection = sdbus::createSystemBusConnection();
    RadarScene::Sink sink(*connection, event,
                          {"radarscene-replay", PROVIDER_SERVICE, PROVIDER_PATH, false});
    state.sink = &sink;
    sink.addSupportedChannel(state.channel);
    for (const auto& [id, name] : options.classes) {
        sink.addObjectClassification(id, name.c_str());
    }
    sink.requestName();
    tool_note_missing_geolocation();
    RadarScene::ConnectionEventSource source(*connection, event);

    uint64_t now = 0;
    sd_event_now(event, CLOCK_MONOTONIC, &now);
    sd_event_source* timer = nullptr;
    tool_check(sd_event_add_time(event, &timer, CLOCK_MONOTONIC,
                                 now + static_cast<uint64_t>(options.delay * 1e6), 1,
                                 &replay::on_timer, &state),
               "sd_event_add_time");
    sd_event_source_set_enabled(timer, SD_EVENT_ON);
    int r = sd_event_loop(event);
    sd_event_source_disable_unref(timer);
    if (r == 0) {
        say_summary("pushed", state.pushed, state.told ? state.skips : recording->skips());
    }
    return r != 0 ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
    tool_init("radarscene-replay");
    // Chunks of up to 32 MiB are decoded and freed in turn, twice each. Left
    // to itself, glibc stops mapping blocks of that size once the first is
    // freed, and keeps them in the heap, where the next may not fit.
    mallopt(M_MMAP_THRESHOLD, 1 << 20);
    options_t options = parse_options(argc, argv);
    return tool_run([&] { return run(options); });
}
