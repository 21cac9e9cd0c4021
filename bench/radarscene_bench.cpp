// Per-frame costs of the library beside baselines, in one run, with ratios:
//   1. the codec: serializeFrame / deserializeFrame against the same scene
//      built on the heap and against SerializeToString of a built scene;
//   2. fan-out through a Sink to subscribers that subscribed over D-Bus,
//      against writing the same framed bytes to as many socket pairs;
//   3. one of eight subscribers that stops reading.
// Needs a bus for the provider: run it under dbus-run-session with
// DBUS_SYSTEM_BUS_ADDRESS set to the session bus (see docs/BENCHMARKS.md).

#include "serializescene/serializescene.h"

#include <radarscene/RadarScene.h>
#include <radarscene/scene.pb.h>
#include <sdbus-c++/IConnection.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using clock_type = std::chrono::steady_clock;

uint64_t now_ns() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<uint64_t>(t.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(t.tv_nsec);
}

double cpu_seconds() {
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

long minor_faults() {
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_minflt;
}

long peak_rss_kib() {
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

// Every object carries every member.
RadarScene::Frame full_frame(int objects, uint64_t time = 1) {
    RadarScene::Frame frame;
    frame.time = time;
    frame.status = RadarScene::RadarStatus{true, false, {{"blocked", 3, false}}};
    frame.orientation = RadarScene::RadarOrientation{1.5, 0.25};
    for (int i = 0; i < objects; ++i) {
        RadarScene::FrameObject o;
        o.id = i;
        o.set_confidence(0.9);
        o.set_bounding_box({1.5, 2.5, 3, 4});
        o.set_polygon({{0, 0}, {1, 0}, {1, 1}, {0, 1}});
        o.set_velocity({1, 2});
        o.set_velocity3d({1, 2, 3});
        o.set_position({10.5 + i, 20, 1});
        o.set_classifications({{1, 0.8}, {2, 0.1}});
        o.set_covariance(std::vector<double>(9, 0.1));
        o.set_area(2.5);
        o.set_geoposition({12, 59.3, 18.1});
        frame.objects.push_back(o);
    }
    return frame;
}

// Median seconds per call of `body`, over batches that run for about 0.3 s.
double seconds_per_call(const std::function<void()>& body) {
    std::vector<double> batches;
    auto end = clock_type::now() + std::chrono::milliseconds(300);
    while (clock_type::now() < end || batches.size() < 5) {
        auto start = clock_type::now();
        for (int i = 0; i < 10; ++i) {
            body();
        }
        batches.push_back(std::chrono::duration<double>(clock_type::now() - start).count() / 10);
    }
    std::sort(batches.begin(), batches.end());
    return batches[batches.size() / 2];
}

void codec_section() {
    printf("== serializeFrame / deserializeFrame (median per call)\n");
    printf("%8s %8s %12s %12s %12s %12s %10s %10s %12s\n", "objects", "options", "serialize",
           "heap build", "SerializeTo", "deserialize", "heap/ser", "ser/STS", "faults/call");
    for (int objects : {0, 16, 128, 512}) {
        for (bool all : {true, false}) {
            RadarScene::Frame frame = full_frame(objects);
            RadarScene::SerializeFrameOptions options;
            options.bounding_box = options.polygon = options.velocity = options.geolocation = all;
            std::string out;
            RadarScene::serializeFrame(out, frame, options);  // warm the arena
            long faults_before = minor_faults();
            int calls = 0;
            double serialize = seconds_per_call([&] {
                RadarScene::serializeFrame(out, frame, options);
                ++calls;
            });
            double faults = static_cast<double>(minor_faults() - faults_before) / calls;
            double heap = seconds_per_call([&] {
                RadarScene::Scene scene;
                convert_frame_to_scene(scene, frame, options);
                scene.SerializeToString(&out);
            });
            RadarScene::Scene built;
            convert_frame_to_scene(built, frame, options);
            double serialize_only = seconds_per_call([&] { built.SerializeToString(&out); });
            std::string decodable;
            RadarScene::SerializeFrameOptions no_velocity = options;
            no_velocity.velocity = false;  // a 2-D velocity cannot be decoded
            RadarScene::serializeFrame(decodable, frame, no_velocity);
            double deserialize = seconds_per_call([&] { RadarScene::deserializeFrame(decodable); });
            printf("%8d %8s %10.2fus %10.2fus %10.2fus %10.2fus %9.2fx %9.2fx %12.1f\n", objects,
                   all ? "all" : "none", serialize * 1e6, heap * 1e6, serialize_only * 1e6,
                   deserialize * 1e6, heap / serialize, serialize / serialize_only, faults);
        }
    }
}

// Percentiles of a sample, in the sample's unit.
struct summary {
    double p50 = 0, p99 = 0, max = 0;
};
summary summarise(std::vector<double> values) {
    if (values.empty()) {
        return {};
    }
    std::sort(values.begin(), values.end());
    auto at = [&](double q) { return values[static_cast<size_t>(q * (values.size() - 1))]; };
    return {at(0.5), at(0.99), values.back()};
}

// The scene's time, its first field, read without decoding the rest.
uint64_t scene_time(const std::string& payload) {
    uint64_t time = 0;
    if (payload.empty() || payload[0] != 0x08) {
        return time;
    }
    for (size_t i = 1, shift = 0; i < payload.size() && shift < 64; ++i, shift += 7) {
        auto byte = static_cast<uint8_t>(payload[i]);
        time |= static_cast<uint64_t>(byte & 0x7f) << shift;
        if (!(byte & 0x80)) {
            break;
        }
    }
    return time;
}

// A reader thread per stream: counts records and the delay from the scene's
// time stamp (the push) to reception. `stop_after` stops reading early.
struct reader {
    int fd;
    size_t stop_after = SIZE_MAX;
    std::vector<double> delays_us;
    size_t received = 0;
    std::thread thread;

    void start() {
        thread = std::thread([this] {
            std::string payload;
            while (received < stop_after && RadarScene::readSceneRecord(fd, payload) == 1) {
                uint64_t at = now_ns();
                delays_us.push_back(static_cast<double>(at - scene_time(payload)) / 1e3);
                ++received;
            }
        });
    }
};

struct run_result {
    summary push_us, delay_us;
    size_t delivered = 0, expected = 0;
    double cpu_per_frame_us = 0;
};

// Pushes `frames` frames at `rate` Hz (0: as fast as possible) through
// `push`, with `readers` draining the streams; `finish` ends the streams.
run_result drive(int objects, int frames, double rate, std::vector<reader>& readers,
                 const std::function<void(const RadarScene::Frame&)>& push,
                 const std::function<void()>& finish) {
    for (auto& r : readers) {
        r.start();
    }
    RadarScene::Frame frame = full_frame(objects);
    std::vector<double> pushes;
    double cpu_before = cpu_seconds();
    auto next = clock_type::now();
    for (int i = 0; i < frames; ++i) {
        if (rate > 0) {
            std::this_thread::sleep_until(next);
            next += std::chrono::duration_cast<clock_type::duration>(
                std::chrono::duration<double>(1 / rate));
        }
        frame.time = now_ns();
        auto start = clock_type::now();
        push(frame);
        pushes.push_back(
            std::chrono::duration<double, std::micro>(clock_type::now() - start).count());
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    finish();
    double cpu = cpu_seconds() - cpu_before;
    run_result result;
    std::vector<double> delays;
    for (auto& r : readers) {
        r.thread.join();
        delays.insert(delays.end(), r.delays_us.begin(), r.delays_us.end());
        result.delivered += r.received;
        result.expected += std::min<size_t>(static_cast<size_t>(frames), r.stop_after);
    }
    result.push_us = summarise(pushes);
    result.delay_us = summarise(delays);
    result.cpu_per_frame_us = cpu * 1e6 / frames;
    return result;
}

// The provider on its own loop thread, as a producer would run it.
struct producer {
    sd_event* event = nullptr;
    std::unique_ptr<sdbus::IConnection> connection;
    std::unique_ptr<RadarScene::Sink> sink;
    std::unique_ptr<RadarScene::ConnectionEventSource> source;
    std::atomic<bool> running{true};
    std::thread loop;

    producer() {
        sd_event_new(&event);
        connection = sdbus::createSystemBusConnection();
        sink = std::make_unique<RadarScene::Sink>(
            *connection, event,
            RadarScene::SinkConfig{"bench", "com.tessel.RadarSceneProvider1",
                                   "/com/tessel/RadarSceneProvider1", false});
        sink->addSupportedChannel(0);
        sink->requestName();
        source = std::make_unique<RadarScene::ConnectionEventSource>(*connection, event);
        loop = std::thread([this] {
            while (running) {
                sd_event_run(event, 50'000);
            }
        });
    }
    ~producer() {
        running = false;
        loop.join();
        source.reset();
        sink.reset();
        connection.reset();
        sd_event_unref(event);
    }
};

int subscribe(sd_bus* bus) {
    sd_bus_message* call = nullptr;
    sd_bus_message* reply = nullptr;
    sd_bus_message_new_method_call(bus, &call, "com.tessel.RadarSceneProvider1",
                                   "/com/tessel/RadarSceneProvider1",
                                   "com.tessel.RadarSceneProvider1.Scene", "SubscribeSocket");
    sd_bus_message_append(call, "ii", 3, 0);
    sd_bus_message_append(call, "a{sb}", 3, "BOUNDINGBOX_ENABLED", 1, "VELOCITY_ENABLED", 1,
                          "POLYGON_ENABLED", 1);
    int fd = -1;
    int32_t session = -1;
    if (sd_bus_call(bus, call, 0, nullptr, &reply) >= 0 &&
        sd_bus_message_read(reply, "hi", &fd, &session) >= 0) {
        fd = fcntl(fd, F_DUPFD_CLOEXEC, 3);
    }
    sd_bus_message_unref(call);
    sd_bus_message_unref(reply);
    return fd;
}

run_result library_run(int subscribers, int objects, int frames, double rate, int stalled = -1) {
    producer p;
    sd_bus* bus = nullptr;
    sd_bus_open_system(&bus);
    std::vector<reader> readers(static_cast<size_t>(subscribers));
    for (int i = 0; i < subscribers; ++i) {
        readers[static_cast<size_t>(i)].fd = subscribe(bus);
        if (i == stalled) {
            readers[static_cast<size_t>(i)].stop_after = 1;
        }
    }
    auto result = drive(
        objects, frames, rate, readers, [&](const RadarScene::Frame& f) { p.sink->push(0, f); },
        [&] {
            for (auto& r : readers) {
                shutdown(r.fd, SHUT_RDWR);
            }
        });
    for (auto& r : readers) {
        close(r.fd);
    }
    sd_bus_flush_close_unref(bus);
    return result;
}

// The same framed bytes written straight to socket pairs by the pushing thread.
run_result baseline_run(int subscribers, int objects, int frames, double rate) {
    std::vector<reader> readers(static_cast<size_t>(subscribers));
    std::vector<int> writers;
    for (auto& r : readers) {
        int fds[2];
        socketpair(AF_UNIX, SOCK_STREAM, 0, fds);
        writers.push_back(fds[0]);
        r.fd = fds[1];
    }
    RadarScene::SerializeFrameOptions options;
    options.bounding_box = options.velocity = options.polygon = true;
    std::string payload;
    auto result = drive(
        objects, frames, rate, readers,
        [&](const RadarScene::Frame& f) {
            RadarScene::serializeFrame(payload, f, options);
            uint32_t header = htonl(static_cast<uint32_t>(payload.size() + 4));
            for (int fd : writers) {
                iovec parts[2] = {{&header, 4}, {payload.data(), payload.size()}};
                writev(fd, parts, 2);
            }
        },
        [&] {
            for (int fd : writers) {
                close(fd);
            }
        });
    for (auto& r : readers) {
        close(r.fd);
    }
    return result;
}

void print_run(const char* what, const run_result& r) {
    printf(
        "  %-9s push us p50 %8.1f p99 %8.1f max %9.1f | delay us p50 %8.1f p99 %8.1f max %9.1f"
        " | delivered %6zu/%-6zu | cpu/frame %8.1f us\n",
        what, r.push_us.p50, r.push_us.p99, r.push_us.max, r.delay_us.p50, r.delay_us.p99,
        r.delay_us.max, r.delivered, r.expected, r.cpu_per_frame_us);
}

void fanout_section() {
    printf("\n== fan-out through a Sink vs. the same framed bytes written to socket pairs\n");
    for (int subscribers : {1, 8, 32}) {
        for (int objects : {128, 512}) {
            for (double rate : {100.0, 0.0}) {
                int frames = rate > 0 ? 300 : 1000;
                printf("%d subscribers, %d objects, %s:\n", subscribers, objects,
                       rate > 0 ? "100 Hz" : "as fast as possible");
                run_result library = library_run(subscribers, objects, frames, rate);
                run_result baseline = baseline_run(subscribers, objects, frames, rate);
                print_run("library", library);
                print_run("baseline", baseline);
                printf(
                    "  ratios library/baseline: cpu/frame %.2fx, delay p50 %.2fx, push p99 %.2fx\n",
                    library.cpu_per_frame_us / baseline.cpu_per_frame_us,
                    library.delay_us.p50 / baseline.delay_us.p50,
                    library.push_us.p99 / baseline.push_us.p99);
            }
        }
    }
}

void slow_subscriber_section() {
    printf("\n== 8 subscribers at 100 Hz, 128 objects, one of them stops reading\n");
    print_run("library", library_run(8, 128, 300, 100, 0));
}

}  // namespace

int main() {
    if (!getenv("DBUS_SYSTEM_BUS_ADDRESS")) {
        fprintf(stderr,
                "radarscene_bench: set DBUS_SYSTEM_BUS_ADDRESS to a bus it may own names on\n");
        return 1;
    }
    // The library's log lines (closed sessions) would drown the tables.
    int log = open("/dev/null", O_WRONLY);
    int saved = dup(STDERR_FILENO);
    dup2(log, STDERR_FILENO);
    codec_section();
    fanout_section();
    slow_subscriber_section();
    dup2(saved, STDERR_FILENO);
    printf("\npeak RSS %ld KiB\n", peak_rss_kib());
    return 0;
}
