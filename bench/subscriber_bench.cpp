// CPU per scene of reading a subscription through RadarScene::Subscriber beside a bare loop of
// readSceneRecord on a socket subscribed by hand, on the same provider and frames, in rounds
// that take turns, each reader alone with the provider on a thread of its own. Needs a bus for the
// provider: run it under dbus-run-session with DBUS_SYSTEM_BUS_ADDRESS set to the session bus (see
// docs/BENCHMARKS.md).

#include <radarscene/RadarScene.h>
#include <radarscene/Subscriber.h>
#include <sdbus-c++/IConnection.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

namespace {

double thread_cpu_us() {
    timespec t;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) * 1e6 + static_cast<double>(t.tv_nsec) / 1e3;
}

RadarScene::Frame frame_of(int objects, uint64_t time) {
    RadarScene::Frame frame;
    frame.time = time;
    for (int i = 0; i < objects; ++i) {
        RadarScene::FrameObject o;
        o.id = i;
        o.set_bounding_box({1.0 * i, 2, 3, 4});
        o.set_position({10.0 + i, 20, 1});
        o.set_velocity3d({1, 2, 0});
        o.set_classifications({{1, 0.9}});
        frame.objects.push_back(o);
    }
    return frame;
}

// A stream subscribed by hand, as a consumer without the library would.
int subscribe_by_hand(sd_bus* bus, int32_t& session) {
    sd_bus_message* reply = nullptr;
    int fd = -1;
    if (sd_bus_call_method(bus, "com.tessel.RadarSceneProvider1", "/com/tessel/RadarSceneProvider1",
                           "com.tessel.RadarSceneProvider1.Scene", "SubscribeSocket", nullptr,
                           &reply, "iia{sb}", 3, 0, 1, "BOUNDINGBOX_ENABLED", 1) < 0 ||
        sd_bus_message_read(reply, "hi", &fd, &session) < 0) {
        fprintf(stderr, "cannot subscribe\n");
        exit(1);
    }
    fd = fcntl(fd, F_DUPFD_CLOEXEC, 3);
    sd_bus_message_unref(reply);
    return fd;
}

struct result_t {
    uint64_t scenes = 0;
    double cpu_us = 0;
};

void push_frames(RadarScene::Sink& sink, int objects, int rate, int frames) {
    RadarScene::Frame frame = frame_of(objects, 0);
    auto next = std::chrono::steady_clock::now();
    for (int i = 1; i <= frames; ++i) {
        frame.time = static_cast<uint64_t>(i) * 1'000'000;
        sink.push(0, frame);
        if (rate > 0) {
            next += std::chrono::microseconds(1'000'000 / rate);
            std::this_thread::sleep_until(next);
        }
    }
    // Let the reader drain what was sent before its stream ends.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
}

// One round with a single reader, alone with the provider: the bare loop or Subscriber.
void run_round(RadarScene::Sink& sink, int objects, int rate, int frames, bool library,
               result_t& total) {
    result_t round;
    if (library) {
        RadarScene::Subscriber subscriber(RadarScene::SubscriberConfig{.bounding_box = true});
        std::thread reader([&] {
            std::string payload;
            double start = thread_cpu_us();
            while (subscriber.read(payload) == RadarScene::ReadResult::SCENE) {
                ++round.scenes;
            }
            round.cpu_us = thread_cpu_us() - start;
        });
        push_frames(sink, objects, rate, frames);
        subscriber.close();
        reader.join();
    } else {
        sd_bus* bus = nullptr;
        sd_bus_open_system(&bus);
        int32_t session = -1;
        int fd = subscribe_by_hand(bus, session);
        std::thread reader([&] {
            std::string payload;
            double start = thread_cpu_us();
            while (RadarScene::readSceneRecord(fd, payload) == 1) {
                ++round.scenes;
            }
            round.cpu_us = thread_cpu_us() - start;
        });
        push_frames(sink, objects, rate, frames);
        sd_bus_call_method(bus, "com.tessel.RadarSceneProvider1", "/com/tessel/RadarSceneProvider1",
                           "com.tessel.RadarSceneProvider1.Scene", "UnsubscribeSocket", nullptr,
                           nullptr, "i", session);
        reader.join();
        close(fd);
        sd_bus_flush_close_unref(bus);
    }
    total.scenes += round.scenes;
    total.cpu_us += round.cpu_us;
}

}  // namespace

int main(int argc, char** argv) {
    // One configuration only with "OBJECTS RATE" (RATE 0: flat out), for profiling.
    int only_objects = argc > 2 ? atoi(argv[1]) : -1;
    int only_rate = argc > 2 ? atoi(argv[2]) : -1;
    auto connection = sdbus::createSystemBusConnection();
    sd_event* event = nullptr;
    sd_event_new(&event);
    RadarScene::Sink sink(
        *connection, event,
        {"bench", "com.tessel.RadarSceneProvider1", "/com/tessel/RadarSceneProvider1", true});
    sink.addSupportedChannel(0);
    RadarScene::ConnectionEventSource source(*connection, event);
    std::atomic<bool> running{true};
    std::thread loop([&] {
        while (running) {
            sd_event_run(event, 100'000);
        }
    });
    // Rounds of each reader alone take turns; the sums of all rounds make the figures.
    printf(
        "| objects | pushed | scenes each | bare CPU us/scene | Subscriber CPU us/scene | "
        "ratio |\n|---|---|---|---|---|---|\n");
    for (int objects : {16, 512}) {
        for (int rate : {1000, 0}) {
            if (only_objects >= 0 && (objects != only_objects || rate != only_rate)) {
                continue;
            }
            result_t bare, library;
            for (int round = 0; round < 8; ++round) {
                // Alternating which reader goes first spreads drifts of the machine over both.
                bool library_first = round % 2 == 1;
                int frames = rate ? 1000 : 5000;
                run_round(sink, objects, rate, frames, library_first,
                          library_first ? library : bare);
                run_round(sink, objects, rate, frames, !library_first,
                          library_first ? bare : library);
            }
            double bare_per = bare.cpu_us / static_cast<double>(bare.scenes);
            double library_per = library.cpu_us / static_cast<double>(library.scenes);
            printf("| %d | %s | %llu / %llu | %.2f | %.2f | %.2f |\n", objects,
                   rate > 0 ? "1000 Hz" : "flat out", static_cast<unsigned long long>(bare.scenes),
                   static_cast<unsigned long long>(library.scenes), bare_per, library_per,
                   library_per / bare_per);
            fflush(stdout);
        }
    }
    running = false;
    loop.join();
    sd_event_unref(event);
}
