// radarscene-replay: a producer that pushes the scenes of a recording made
// with `radarscene-sub --record` at the recorded rate.

#include "recording.h"
#include "toolutil.h"

#include <radarscene/RadarScene.h>
#include <radarscene/scene.pb.h>
#include <sdbus-c++/IConnection.h>
#include <systemd/sd-event.h>

#include <getopt.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

namespace {

constexpr const char* USAGE = R"(Usage: radarscene-replay [OPTION]... FILE
Serves a radar scene provider on the system bus and pushes the scenes of
FILE, a recording made with radarscene-sub --record, at the recorded rate.
FILE may be an MCAP recording (told by its first bytes) with RadarScene.Scene
messages, read as a stream; messages of other schemas are skipped and counted.

      --rate HZ        push at HZ scenes per second instead
      --loop           start again at the end of the recording
      --delay S        wait S seconds before the first scene (default 0)
      --class ID=NAME  declare an object class (repeatable; default 1=Human, 2=Vehicle)
      --channel N      the radar channel to serve and, in an MCAP recording, to
                       replay (default: the recording's first, else 0)
      --start S        MCAP: begin S seconds after the recording's start
      --end S          MCAP: stop S seconds after the recording's start
  -h, --help           show this text and exit
      --version        show the version and exit
)";

constexpr uint64_t LONGEST_PAUSE_NS = 5'000'000'000;

struct options_t {
    int channel = -1;
    double start = 0;
    double end = -1;
    double rate = 0;
    bool loop = false;
    double delay = 0;
    std::map<int, std::string> classes;
    std::string file;
};

options_t parse_options(int argc, char** argv) {
    enum { RATE = 1, LOOP, DELAY, CLASS, CHANNEL, START, END };
    static const option long_options[] = {{"rate", required_argument, nullptr, RATE},
                                          {"loop", no_argument, nullptr, LOOP},
                                          {"delay", required_argument, nullptr, DELAY},
                                          {"class", required_argument, nullptr, CLASS},
                                          {"channel", required_argument, nullptr, CHANNEL},
                                          {"start", required_argument, nullptr, START},
                                          {"end", required_argument, nullptr, END},
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
    size_t skipped = 0;  // in the first pass: later passes skip the same

    // Nanoseconds to wait after the current scene, whose successor is
    // `upcoming` when `in_order`.
    uint64_t pause(bool in_order) const {
        if (options->rate > 0) {
            return static_cast<uint64_t>(1e9 / options->rate);
        }
        if (!in_order || upcoming.time <= current.time) {
            return 0;
        }
        return std::min(upcoming.time - current.time, LONGEST_PAUSE_NS);
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
                skipped = recording->skipped;
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

int run(const options_t& options) {
    std::unique_ptr<Recording> recording =
        open_recording(options.file, {options.channel, options.start, options.end});
    replay state{recording.get(), &options};
    if (!recording->next(state.current)) {
        recording->tell();
        tool_fail("%s", recording->nothing().c_str());
    }
    state.channel = options.channel >= 0 ? options.channel : recording->channel;

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
    fprintf(stderr, "radarscene-replay: pushed %zu scenes, skipped %zu undecodable records\n",
            state.pushed, state.told ? state.skipped : recording->skipped);
    return r != 0 ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
    tool_init("radarscene-replay");
    options_t options = parse_options(argc, argv);
    return tool_run([&] { return run(options); });
}
