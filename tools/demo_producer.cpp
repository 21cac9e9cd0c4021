// radarscene-demo-producer: an example radar producer that pushes synthetic
// frames through a Sink until it is stopped with SIGINT or SIGTERM.

#include "toolutil.h"

#include <radarscene/RadarScene.h>
#include <sdbus-c++/IConnection.h>
#include <systemd/sd-event.h>

#include <getopt.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>

namespace {

constexpr const char* USAGE = R"(Usage: radarscene-demo-producer [OPTION]...
Serves the radar scene provider on the system bus and pushes synthetic
frames of objects circling the radar on channel 0.

      --rate HZ        frames per second (default 10)
      --objects N      objects per frame (default 3)
  -h, --help           show this text and exit
      --version        show the version and exit
)";

struct producer {
    RadarScene::Sink* sink;
    uint64_t period_usec;
    int objects;
    uint64_t frame_number = 0;
};

// Objects circling the radar at different ranges and speeds.
RadarScene::Frame synthetic_frame(uint64_t now_ns, uint64_t number, int objects) {
    RadarScene::Frame frame;
    frame.time = now_ns;
    frame.status = RadarScene::RadarStatus{true, false, {}};
    for (int i = 0; i < objects; ++i) {
        double angle = 0.02 * static_cast<double>(number) * (i + 1);
        double range = 10.0 + 15.0 * i;
        RadarScene::FrameObject o;
        o.id = 100 + i;
        o.set_position({range, std::fmod(angle * 57.29577951308232, 360.0), 0});
        o.set_velocity3d({-range * 0.02 * (i + 1) * std::sin(angle),
                          range * 0.02 * (i + 1) * std::cos(angle), 0});
        o.set_bounding_box({range * std::cos(angle) - 0.5, range * std::sin(angle) - 1, 1, 2});
        o.set_confidence(0.9 - 0.1 * i);
        o.set_classifications({{i % 3 == 2 ? 2 : 1, 0.8}});
        frame.objects.push_back(o);
    }
    return frame;
}

// Each frame carries the time it is pushed at. A producer that cannot keep
// its rate (big frames) skips the ticks it missed instead of pushing them
// late, as a radar would: its frames never queue up behind the clock.
int on_frame_timer(sd_event_source* source, uint64_t usec, void* userdata) {
    auto* p = static_cast<producer*>(userdata);
    p->sink->push(0, synthetic_frame(tool_monotonic_ns(), p->frame_number++, p->objects));
    sd_event_source_set_time(source, std::max(usec + p->period_usec, tool_monotonic_ns() / 1000));
    return 0;
}

producer parse_options(int argc, char** argv) {
    enum { RATE = 1, OBJECTS };
    static const option long_options[] = {{"rate", required_argument, nullptr, RATE},
                                          {"objects", required_argument, nullptr, OBJECTS},
                                          {nullptr, 0, nullptr, 0}};
    producer p{nullptr, 100'000, 3};
    tool_parse_options(argc, argv, long_options, USAGE, [&](int option, const char* value) {
        switch (option) {
            case RATE:
                p.period_usec =
                    static_cast<uint64_t>(1e6 / tool_number(value, "--rate", 0.01, 10'000));
                break;
            case OBJECTS:
                p.objects = static_cast<int>(tool_integer(value, "--objects", 0, 10'000));
                break;
        }
    });
    tool_no_arguments(argc, argv);
    return p;
}

int run(producer& p) {
    sd_event_owner loop = tool_event_loop();
    sd_event* event = loop.get();

    auto connection = sdbus::createSystemBusConnection();
    RadarScene::Sink sink(*connection, event,
                          {"radarscene-demo", PROVIDER_SERVICE, PROVIDER_PATH, false});
    sink.addSupportedChannel(0);
    sink.addObjectClassification(1, "Human");
    sink.addObjectClassification(2, "Vehicle");
    RadarScene::SerializeFrameOptions options;
    options.bounding_box = true;
    sink.addMessageBrokerTopic("radar.scene", options);
    sink.addVarroTopicZRFv1("radar.zrfv1");
    sink.requestName();
    RadarScene::ConnectionEventSource dbus_source(*connection, event);

    p.sink = &sink;
    uint64_t now = 0;
    sd_event_now(event, CLOCK_MONOTONIC, &now);
    // Enabled for good, the time source fires again at every new time it is
    // given; an accuracy of 1 us keeps sd-event from batching the frames.
    sd_event_source* frames = nullptr;
    tool_check(sd_event_add_time(event, &frames, CLOCK_MONOTONIC, now, 1, on_frame_timer, &p),
               "sd_event_add_time");
    sd_event_source_set_enabled(frames, SD_EVENT_ON);

    tool_note_missing_geolocation();
    fprintf(stderr, "radarscene-demo-producer: serving channel 0 as %s\n", PROVIDER_SERVICE);
    int r = sd_event_loop(event);
    sd_event_source_disable_unref(frames);
    fprintf(stderr, "radarscene-demo-producer: stopped after %llu frames\n",
            static_cast<unsigned long long>(p.frame_number));
    return r < 0 ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
    tool_init("radarscene-demo-producer");
    producer p = parse_options(argc, argv);
    return tool_run([&] { return run(p); });
}
