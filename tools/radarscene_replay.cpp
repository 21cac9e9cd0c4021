// radarscene-replay: a producer that pushes the scenes of a recording made
// with `radarscene-sub --record` at the recorded rate.

#include "mcap.h"
#include "toolutil.h"

#include <radarscene/RadarScene.h>
#include <radarscene/scene.pb.h>
#include <sdbus-c++/IConnection.h>
#include <systemd/sd-event.h>

#include <fcntl.h>
#include <getopt.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace {

constexpr const char* USAGE = R"(Usage: radarscene-replay [OPTION]... FILE
Serves a radar scene provider on the system bus and pushes the scenes of
FILE, a recording made with radarscene-sub --record, at the recorded rate.
FILE may be an MCAP recording (its name ends in .mcap) with RadarScene.Scene
messages; messages of other schemas are skipped and counted.

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

// True when decoding the scene would trip one of the library's invariants:
// a 2-D velocity, a position without z, an empty label list, or an id that
// does not fit the frame's signed id.
bool decodable(const RadarScene::Scene& scene) {
    for (const RadarScene::Object& o : scene.objects()) {
        if (!o.has_id()) {
            continue;
        }
        if ((o.has_velocity() && (o.has_velocity3d() || !o.velocity().has_vz())) ||
            (o.has_position() && !o.position().has_z()) ||
            (o.has_labels() && o.labels().labels_size() == 0) || o.id() > INT32_MAX) {
            return false;
        }
    }
    return true;
}

struct recording {
    std::vector<std::string> records;
    std::vector<uint64_t> times;
    size_t skipped = 0;
    int channel = 0;  // the radar channel the scenes were recorded from
};

recording load(const std::string& path) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        tool_fail("cannot open %s: %s", path.c_str(), strerror(errno));
    }
    recording out;
    std::string payload;
    RadarScene::Scene scene;
    int r;
    while ((r = RadarScene::readSceneRecord(fd, payload)) > 0) {
        if (!scene.ParseFromString(payload) || !decodable(scene)) {
            ++out.skipped;
            continue;
        }
        out.records.push_back(payload);
        out.times.push_back(scene.time());
    }
    close(fd);
    if (r < 0) {
        fprintf(stderr, "radarscene-replay: %s: recording ends in a broken record (%s)\n",
                path.c_str(), strerror(-r));
    }
    if (out.records.empty()) {
        tool_fail("%s holds no scene that can be replayed", path.c_str());
    }
    return out;
}

struct replay {
    RadarScene::Sink* sink;
    const recording* scenes;
    const options_t* options;
    size_t next = 0;
    size_t pushed = 0;

    // Nanoseconds to wait after pushing scene `i` before the next one.
    uint64_t pause_after(size_t i) const {
        if (options->rate > 0) {
            return static_cast<uint64_t>(1e9 / options->rate);
        }
        if (i + 1 >= scenes->times.size() || scenes->times[i + 1] <= scenes->times[i]) {
            return 0;
        }
        return std::min(scenes->times[i + 1] - scenes->times[i], LONGEST_PAUSE_NS);
    }

    static int on_timer(sd_event_source* source, uint64_t usec, void* self) {
        auto* r = static_cast<replay*>(self);
        size_t i = r->next;
        r->sink->push(r->scenes->channel, std::string_view(r->scenes->records[i]));
        ++r->pushed;
        r->next = (i + 1) % r->scenes->records.size();
        if (r->next == 0 && !r->options->loop) {
            return sd_event_exit(sd_event_source_get_event(source), 0);
        }
        sd_event_source_set_time(source, usec + r->pause_after(i) / 1000);
        return 0;
    }
};

// The radar channel of an MCAP channel of scenes, from its topic
// "/radar/<channel>/scene" or its metadata; -1 when it names none.
int radar_channel(const mcap_channel_t& channel) {
    int number = -1;
    if (sscanf(channel.topic.c_str(), "/radar/%d/scene", &number) == 1) {
        return number;
    }
    auto it = channel.metadata.find("channel");
    return it != channel.metadata.end() ? atoi(it->second.c_str()) : -1;
}

bool is_scene_channel(const McapReader& reader, const mcap_channel_t& channel) {
    auto schema = reader.schemas().find(channel.schema_id);
    return schema != reader.schemas().end() && schema->second.name == "RadarScene.Scene" &&
           schema->second.encoding == "protobuf" && channel.message_encoding == "protobuf";
}

// What reading the file found beside the scenes, a line each.
void tell(const std::string& file, const mcap_read_report_t& report, size_t scenes) {
    if (!report.indexed) {
        std::string cut =
            report.cut_at ? ", the rest is cut off at byte " + std::to_string(report.cut_at) : "";
        fprintf(stderr,
                "radarscene-replay: %s has no index (not finished): recovered %zu scenes from "
                "%zu whole chunks%s\n",
                file.c_str(), scenes, report.chunks, cut.c_str());
    }
    if (report.bad_chunks || report.other_messages) {
        fprintf(stderr,
                "radarscene-replay: %s: skipped %zu chunks that failed their check and %llu "
                "messages of other channels or schemas\n",
                file.c_str(), report.bad_chunks,
                static_cast<unsigned long long>(report.other_messages));
    }
}

// The scenes of one radar channel of an MCAP recording, within the window
// that --start and --end give, found through the recording's index, in the
// order of their log times.
recording load_mcap(const options_t& options) {
    McapReader reader(options.file);
    recording out;
    out.channel = options.channel;
    std::set<uint16_t> wanted;
    for (const auto& [id, channel] : reader.channels()) {
        if (!is_scene_channel(reader, channel)) {
            continue;
        }
        int radar = std::max(radar_channel(channel), 0);
        if (out.channel < 0) {
            out.channel = radar;
        }
        if (radar == out.channel) {
            wanted.insert(id);
        }
    }
    if (wanted.empty()) {
        tool_fail("%s holds no RadarScene.Scene messages of channel %d", options.file.c_str(),
                  std::max(out.channel, 0));
    }
    uint64_t first = reader.startTime();
    uint64_t end = options.end < 0 ? UINT64_MAX : first + static_cast<uint64_t>(options.end * 1e9);
    std::vector<std::pair<uint64_t, std::string>> messages;
    RadarScene::Scene scene;
    reader.readMessages(wanted, first + static_cast<uint64_t>(options.start * 1e9), end,
                        [&](const mcap_message_t& m) {
                            std::string data(m.data);
                            if (!scene.ParseFromString(data) || !decodable(scene)) {
                                ++out.skipped;
                            } else {
                                messages.emplace_back(m.log_time, std::move(data));
                            }
                        });
    tell(options.file, reader.report(), messages.size());
    if (messages.empty()) {
        tool_fail("%s holds no scene that can be replayed", options.file.c_str());
    }
    // Chunks of other writers may overlap in time.
    std::stable_sort(messages.begin(), messages.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    for (auto& [time, data] : messages) {
        out.times.push_back(time);
        out.records.push_back(std::move(data));
    }
    return out;
}

int run(const options_t& options) {
    recording scenes = options.file.ends_with(".mcap") ? load_mcap(options) : load(options.file);
    if (options.channel >= 0) {
        scenes.channel = options.channel;
    }

    sd_event_owner loop = tool_event_loop();
    sd_event* event = loop.get();

    auto connection = sdbus::createSystemBusConnection();
    RadarScene::Sink sink(*connection, event,
                          {"radarscene-replay", PROVIDER_SERVICE, PROVIDER_PATH, false});
    sink.addSupportedChannel(scenes.channel);
    for (const auto& [id, name] : options.classes) {
        sink.addObjectClassification(id, name.c_str());
    }
    sink.requestName();
    tool_note_missing_geolocation();
    RadarScene::ConnectionEventSource source(*connection, event);

    replay state{&sink, &scenes, &options};
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
            state.pushed, scenes.skipped);
    return r < 0 ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
    tool_init("radarscene-replay");
    options_t options = parse_options(argc, argv);
    return tool_run([&] { return run(options); });
}
