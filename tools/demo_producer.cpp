// radarscene-demo-producer: an example radar producer that pushes synthetic
// frames through a Sink until it is stopped with SIGINT or SIGTERM.

#include "toolutil.h"

#include <radarscene/RadarScene.h>
#include <sdbus-c++/IConnection.h>
#include <systemd/sd-event.h>

#include <getopt.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <thread>

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

// Pushes the frames from a thread of its own, as a radar application's
// acquisition thread would: push waits while the producer runs ahead of a
// subscriber whose socket is full, and the event loop, which answers every
// D-Bus call of the provider, must never wait with it. Each frame carries the
// time it is pushed at. A producer that cannot keep its rate (big frames)
// skips the ticks it missed instead of pushing them late, as a radar would:
// its frames never queue up behind the clock.
class frame_thread {
public:
    explicit frame_thread(producer& p) : thread_([this, &p] { run(p); }) {}
    ~frame_thread() {
        {
            std::lock_guard lock(mutex_);
            stop_ = true;
        }
        wake_.notify_one();
        thread_.join();
    }

private:
    void run(producer& p) {
        auto next = std::chrono::steady_clock::now();
        std::unique_lock lock(mutex_);
        while (!stop_) {
            lock.unlock();
            p.sink->push(0, synthetic_frame(tool_monotonic_ns(), p.frame_number++, p.objects));
            lock.lock();
            next = std::max(next + std::chrono::microseconds(p.period_usec),
                            std::chrono::steady_clock::now());
            wake_.wait_until(lock, next, [this] { return stop_; });
        }
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    bool stop_ = false;
    std::thread thread_;  // last: it starts once the members above exist
};

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
    tool_note_missing_geolocation();
    fprintf(stderr, "radarscene-demo-producer: serving channel 0 as %s\n", PROVIDER_SERVICE);
    int r = 0;
    {
        frame_thread frames(p);
        r = sd_event_loop(event);
    }
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
