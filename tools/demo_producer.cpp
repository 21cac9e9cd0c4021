// A radar producer for demonstrations: pushes synthetic frames at 10 Hz
// through a Sink until it is stopped with SIGINT or SIGTERM.

#include <radarscene/RadarScene.h>
#include <sdbus-c++/sdbus-c++.h>
#include <systemd/sd-event.h>

#include <cmath>
#include <csignal>
#include <cstdio>
#include <memory>

namespace {

constexpr uint64_t FRAME_PERIOD_USEC = 100'000;

struct producer {
    RadarScene::Sink* sink;
    uint64_t frame_number = 0;
};

// Three objects circling the radar at different ranges and speeds.
RadarScene::Frame synthetic_frame(uint64_t now_usec, uint64_t number) {
    RadarScene::Frame frame;
    frame.time = now_usec * 1000;
    frame.status = RadarScene::RadarStatus{true, false, {}};
    for (int i = 0; i < 3; ++i) {
        double angle = 0.02 * static_cast<double>(number) * (i + 1);
        double range = 10.0 + 15.0 * i;
        RadarScene::FrameObject o;
        o.id = 100 + i;
        o.set_position({range, std::fmod(angle * 57.29577951308232, 360.0), 0});
        o.set_velocity3d({-range * 0.02 * (i + 1) * std::sin(angle),
                          range * 0.02 * (i + 1) * std::cos(angle), 0});
        o.set_bounding_box({range * std::cos(angle) - 0.5, range * std::sin(angle) - 1, 1, 2});
        o.set_confidence(0.9 - 0.1 * i);
        o.set_classifications({{i == 2 ? 2 : 1, 0.8}});
        frame.objects.push_back(o);
    }
    return frame;
}

int on_frame_timer(sd_event_source* source, uint64_t usec, void* userdata) {
    auto* p = static_cast<producer*>(userdata);
    p->sink->push(0, synthetic_frame(usec, p->frame_number++));
    sd_event_source_set_time(source, usec + FRAME_PERIOD_USEC);
    return 0;
}

}  // namespace

int main() {
    sd_event* event = nullptr;
    sd_event_default(&event);
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &stop_signals, nullptr);
    sd_event_add_signal(event, nullptr, SIGINT, nullptr, nullptr);
    sd_event_add_signal(event, nullptr, SIGTERM, nullptr, nullptr);

    auto connection = sdbus::createSystemBusConnection();
    RadarScene::Sink sink(*connection, event,
                          {"radarscene-demo", "com.tessel.RadarSceneProvider1",
                           "/com/tessel/RadarSceneProvider1", false});
    sink.addSupportedChannel(0);
    sink.addObjectClassification(1, "Human");
    sink.addObjectClassification(2, "Vehicle");
    RadarScene::SerializeFrameOptions options;
    options.bounding_box = true;
    sink.addMessageBrokerTopic("radar.scene", options);
    sink.addVarroTopicZRFv1("radar.zrfv1");
    sink.requestName();
    RadarScene::ConnectionEventSource dbus_source(*connection, event);

    producer p{&sink};
    uint64_t now = 0;
    sd_event_now(event, CLOCK_MONOTONIC, &now);
    // Enabled for good, the time source fires again at every new time it is given.
    sd_event_source* frames = nullptr;
    sd_event_add_time(event, &frames, CLOCK_MONOTONIC, now, 0, on_frame_timer, &p);
    sd_event_source_set_enabled(frames, SD_EVENT_ON);

    fprintf(stderr, "demo producer: serving channel 0 as com.tessel.RadarSceneProvider1\n");
    int r = sd_event_loop(event);
    sd_event_source_unref(frames);
    fprintf(stderr, "demo producer: stopped after %llu frames\n",
            static_cast<unsigned long long>(p.frame_number));
    return r < 0 ? 1 : 0;
}
