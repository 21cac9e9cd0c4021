// Per-frame costs of the library beside baselines, in one run, with ratios:
//   1. the codec: serializeFrame / deserializeFrame against the same scene
//      built on the heap and against SerializeToString of a built scene;
//   2. fan-out through a Sink to subscribers that subscribed over D-Bus,
//      against writing the same framed bytes to as many socket pairs;
//   3. subscribers that stop reading: one of eight (push and tryPush), 31
//      of 32, and a storm of subscription calls whose sessions stall;
//   4. the producer's memory with a huge frame (run first, on a fresh heap),
//      and beside sessions that never read in 3 and 31 option sets;
//   5. overload: large scenes pushed at a rising rate to one reader, and
//      throttled readers in eight option sets beside scenes pushed back to
//      back.
// Needs a bus for the provider: run it under dbus-run-session with
// DBUS_SYSTEM_BUS_ADDRESS set to the session bus (see docs/BENCHMARKS.md).

#include "sceneencoding/sceneencoding.h"
#include "serializescene/serializescene.h"

#include <radarscene/RadarScene.h>
#include <radarscene/scene.pb.h>
#include <sdbus-c++/IConnection.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
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

double thread_cpu_us() {
    timespec t;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) * 1e6 + static_cast<double>(t.tv_nsec) / 1e3;
}

long minor_faults() {
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_minflt;
}

// A field of /proc/self/status in KiB ("VmRSS", "VmHWM").
long status_kib(const char* field) {
    FILE* status = fopen("/proc/self/status", "r");
    char line[256];
    long kib = -1;
    size_t length = strlen(field);
    while (status && fgets(line, sizeof(line), status)) {
        if (strncmp(line, field, length) == 0 && line[length] == ':') {
            kib = atol(line + length + 1);
        }
    }
    if (status) {
        fclose(status);
    }
    return kib;
}

// Starts VmHWM over from the current resident size.
void reset_peak_rss() {
    FILE* refs = fopen("/proc/self/clear_refs", "w");
    if (refs) {
        fputs("5", refs);
        fclose(refs);
    }
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
    printf("%8s %8s %12s %12s %12s %12s %10s %10s %12s %12s %12s\n", "objects", "options",
           "serialize", "heap build", "SerializeTo", "deserialize", "heap/ser", "ser/STS",
           "faults/call", "encode", "assemble");
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
            // The sending path: the push encodes every part the options
            // need, the sending thread assembles the scene from it.
            scene_encoding_t encoding;
            unsigned parts = object_parts_for(options);
            double encode = seconds_per_call(
                [&] { scene_encoding_fill(encoding, frame, options.filtered_classes, parts); });
            double assemble =
                seconds_per_call([&] { scene_encoding_assemble(out, encoding, options); });
            printf(
                "%8d %8s %10.2fus %10.2fus %10.2fus %10.2fus %9.2fx %9.2fx %12.1f %10.2fus "
                "%10.2fus\n",
                objects, all ? "all" : "none", serialize * 1e6, heap * 1e6, serialize_only * 1e6,
                deserialize * 1e6, heap / serialize, serialize / serialize_only, faults,
                encode * 1e6, assemble * 1e6);
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

// A reader thread per stream: counts records, the delay from the scene's
// time stamp (the push) to reception, and the longest gap between two
// records. The first record is the run's warm-up, and not counted.
// `stop_after` stops reading early.
struct reader {
    int fd;
    size_t stop_after = SIZE_MAX;
    std::vector<double> delays_us;
    double max_gap_us = 0;
    size_t received = 0;
    std::atomic<bool> warmed_up{false};
    std::thread thread;

    void start() {
        thread = std::thread([this] {
            std::string payload;
            uint64_t last = 0;
            while (received < stop_after && RadarScene::readSceneRecord(fd, payload) == 1) {
                if (!warmed_up) {
                    warmed_up = true;
                    continue;
                }
                uint64_t at = now_ns();
                delays_us.push_back(static_cast<double>(at - scene_time(payload)) / 1e3);
                if (last) {
                    max_gap_us = std::max(max_gap_us, static_cast<double>(at - last) / 1e3);
                }
                last = at;
                ++received;
            }
        });
    }
};

// The samples of one or more runs, merged by `add`.
struct run_result {
    std::vector<double> push_us, push_cpu_us, delay_us;
    double max_gap_us = 0;  // of the readers that read to the end
    size_t delivered = 0, expected = 0;
    size_t read_on_delivered = 0, read_on_expected = 0;  // of the readers that read to the end
    uint64_t replaced = 0;  // frames the provider counted as replaced before a session got them
    double cpu_us = 0;
    int frames = 0;

    double cpu_per_frame_us() const { return cpu_us / frames; }
    void add(const run_result& run) {
        push_us.insert(push_us.end(), run.push_us.begin(), run.push_us.end());
        push_cpu_us.insert(push_cpu_us.end(), run.push_cpu_us.begin(), run.push_cpu_us.end());
        delay_us.insert(delay_us.end(), run.delay_us.begin(), run.delay_us.end());
        max_gap_us = std::max(max_gap_us, run.max_gap_us);
        delivered += run.delivered;
        expected += run.expected;
        read_on_delivered += run.read_on_delivered;
        read_on_expected += run.read_on_expected;
        replaced += run.replaced;
        cpu_us += run.cpu_us;
        frames += run.frames;
    }
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
    // One frame first, out of the measurement: the first push of a run
    // allocates what later ones reuse.
    frame.time = now_ns();
    push(frame);
    for (auto give_up = clock_type::now() + std::chrono::seconds(2);
         clock_type::now() < give_up && !std::all_of(readers.begin(), readers.end(), [](reader& r) {
             return r.warmed_up.load();
         });) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    run_result result;
    double cpu_before = cpu_seconds();
    auto next = clock_type::now();
    for (int i = 0; i < frames; ++i) {
        if (rate > 0) {
            std::this_thread::sleep_until(next);
            next += std::chrono::duration_cast<clock_type::duration>(
                std::chrono::duration<double>(1 / rate));
        }
        frame.time = now_ns();
        // The wall clock inside the thread clock: reading the thread clock
        // is a system call, and no part of the push.
        double cpu_start = thread_cpu_us();
        auto start = clock_type::now();
        push(frame);
        auto end = clock_type::now();
        result.push_cpu_us.push_back(thread_cpu_us() - cpu_start);
        result.push_us.push_back(std::chrono::duration<double, std::micro>(end - start).count());
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    finish();
    result.cpu_us = (cpu_seconds() - cpu_before) * 1e6;
    result.frames = frames;
    for (auto& r : readers) {
        r.thread.join();
        result.delay_us.insert(result.delay_us.end(), r.delays_us.begin(), r.delays_us.end());
        result.delivered += r.received;
        if (r.stop_after == SIZE_MAX) {
            result.max_gap_us = std::max(result.max_gap_us, r.max_gap_us);
            result.read_on_delivered += r.received;
            result.read_on_expected += static_cast<size_t>(frames);
        }
        result.expected += std::min<size_t>(static_cast<size_t>(frames), r.stop_after);
    }
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

const std::vector<const char*> DEFAULT_FEATURES = {"BOUNDINGBOX_ENABLED", "VELOCITY_ENABLED",
                                                   "POLYGON_ENABLED"};

int subscribe(sd_bus* bus, const std::vector<const char*>& features = DEFAULT_FEATURES) {
    sd_bus_message* call = nullptr;
    sd_bus_message* reply = nullptr;
    sd_bus_message_new_method_call(bus, &call, "com.tessel.RadarSceneProvider1",
                                   "/com/tessel/RadarSceneProvider1",
                                   "com.tessel.RadarSceneProvider1.Scene", "SubscribeSocket");
    sd_bus_message_append(call, "ii", 3, 0);
    sd_bus_message_open_container(call, 'a', "{sb}");
    for (const char* feature : features) {
        sd_bus_message_append(call, "{sb}", feature, 1);
    }
    sd_bus_message_close_container(call);
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

// The frames the provider replaced before its sessions got them, from its
// statistics object (0 from a provider without one), and through `handoff`
// those replaced before the sending thread took them (0 from a provider
// that does not count them).
uint64_t frames_replaced(sd_bus* bus, uint64_t* handoff = nullptr) {
    sd_bus_message* reply = nullptr;
    uint64_t replaced = 0;
    const char* contents = nullptr;
    char type = 0;
    if (handoff) {
        *handoff = 0;
    }
    if (sd_bus_call_method(
            bus, "com.tessel.RadarSceneProvider1", "/com/tessel/RadarSceneProvider1/Statistics",
            "com.tessel.RadarSceneProvider1.Statistics", "GetChannels", nullptr, &reply, "") >= 0 &&
        sd_bus_message_peek_type(reply, &type, &contents) > 0 &&
        sd_bus_message_enter_container(reply, 'a', contents) >= 0) {
        bool counts_handoff = strcmp(contents, "(iutttttt)") == 0;
        int32_t channel = 0;
        uint32_t active = 0;
        uint64_t pushed = 0, scenes = 0, frames = 0, bytes = 0, broken = 0, at_handoff = 0;
        while ((counts_handoff
                    ? sd_bus_message_read(reply, "(iutttttt)", &channel, &active, &pushed, &scenes,
                                          &frames, &bytes, &broken, &at_handoff)
                    : sd_bus_message_read(reply, "(iuttttt)", &channel, &active, &pushed, &scenes,
                                          &frames, &bytes, &broken)) > 0) {
            replaced += frames;
            if (handoff) {
                *handoff += at_handoff;
            }
        }
    }
    sd_bus_message_unref(reply);
    return replaced;
}

// The sessions that the provider's statistics object lists as broken.
int sessions_broken(sd_bus* bus) {
    sd_bus_message* reply = nullptr;
    int broken = 0;
    if (sd_bus_call_method(
            bus, "com.tessel.RadarSceneProvider1", "/com/tessel/RadarSceneProvider1/Statistics",
            "com.tessel.RadarSceneProvider1.Statistics", "GetSessions", nullptr, &reply, "") >= 0 &&
        sd_bus_message_enter_container(reply, 'a', "(iixusttts)") >= 0) {
        int32_t id = 0, channel = 0;
        int64_t since = 0;
        uint32_t pid = 0;
        const char *comm = nullptr, *state = nullptr;
        uint64_t scenes = 0, frames = 0, bytes = 0;
        while (sd_bus_message_read(reply, "(iixusttts)", &id, &channel, &since, &pid, &comm,
                                   &scenes, &frames, &bytes, &state) > 0) {
            broken += strncmp(state, "broken", 6) == 0;
        }
    }
    sd_bus_message_unref(reply);
    return broken;
}

// The first `stalled` subscribers stop reading after their first scene;
// `try_push` pushes with Sink::tryPush.
run_result library_run(int subscribers, int objects, int frames, double rate, int stalled = 0,
                       bool try_push = false) {
    producer p;
    sd_bus* bus = nullptr;
    sd_bus_open_system(&bus);
    std::vector<reader> readers(static_cast<size_t>(subscribers));
    for (int i = 0; i < subscribers; ++i) {
        readers[static_cast<size_t>(i)].fd = subscribe(bus);
        if (i < stalled) {
            readers[static_cast<size_t>(i)].stop_after = 1;
        }
    }
    auto result = drive(
        objects, frames, rate, readers,
        [&](const RadarScene::Frame& f) {
            if (try_push) {
                p.sink->tryPush(0, f);
            } else {
                p.sink->push(0, f);
            }
        },
        [&] {
            for (auto& r : readers) {
                shutdown(r.fd, SHUT_RDWR);
            }
        });
    result.replaced = frames_replaced(bus);
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
    summary push = summarise(r.push_us), push_cpu = summarise(r.push_cpu_us),
            delay = summarise(r.delay_us);
    printf(
        "  %-9s push us p50 %8.1f p99 %8.1f max %9.1f (thread cpu p99 %6.1f max %6.1f)"
        " | delay us p50 %8.1f p99 %8.1f max %9.1f | delivered %6zu/%-6zu (%llu replaced)"
        " | cpu/frame %8.1f us\n",
        what, push.p50, push.p99, push.max, push_cpu.p99, push_cpu.max, delay.p50, delay.p99,
        delay.max, r.delivered, r.expected, static_cast<unsigned long long>(r.replaced),
        r.cpu_per_frame_us());
}

// What the readers that read on received while others stalled.
void print_read_on(const run_result& r) {
    printf("  the readers that read on: delivered %zu/%zu (%.1f%%), longest gap %.1f ms\n",
           r.read_on_delivered, r.read_on_expected,
           100.0 * static_cast<double>(r.read_on_delivered) /
               static_cast<double>(std::max<size_t>(r.read_on_expected, 1)),
           r.max_gap_us / 1e3);
}

constexpr int ROUNDS = 3;

void fanout_section() {
    printf("\n== fan-out through a Sink vs. the same framed bytes written to socket pairs\n");
    for (int subscribers : {1, 8, 32}) {
        for (int objects : {128, 512}) {
            for (double rate : {100.0, 0.0}) {
                int frames = rate > 0 ? 300 : 1000;
                printf("%d subscribers, %d objects, %s:\n", subscribers, objects,
                       rate > 0 ? "100 Hz" : "as fast as possible");
                // Library and baseline take turns, so that a change in the
                // machine's speed during the row weighs on both alike.
                run_result library, baseline;
                for (int round = 0; round < ROUNDS; ++round) {
                    library.add(library_run(subscribers, objects, frames / ROUNDS, rate));
                    baseline.add(baseline_run(subscribers, objects, frames / ROUNDS, rate));
                }
                print_run("library", library);
                print_run("baseline", baseline);
                printf(
                    "  ratios library/baseline: cpu/frame %.2fx, delay p50 %.2fx, push p99 %.2fx\n",
                    library.cpu_per_frame_us() / baseline.cpu_per_frame_us(),
                    summarise(library.delay_us).p50 / summarise(baseline.delay_us).p50,
                    summarise(library.push_us).p99 / summarise(baseline.push_us).p99);
            }
        }
    }
}

// The producer's push at 100 Hz and 128 objects alone, over more frames than
// the fan-out rows: a p99 of 300 pushes is their fourth longest.
void push_section() {
    printf("\n== push at 100 Hz, 128 objects\n");
    for (int subscribers : {1, 8, 32}) {
        printf("%d subscribers:\n", subscribers);
        print_run("library", library_run(subscribers, 128, 1000, 100));
    }
}

void slow_subscriber_section() {
    printf("\n== 8 subscribers at 100 Hz, 128 objects, one of them stops reading\n");
    run_result one = library_run(8, 128, 300, 100, 1);
    print_run("push", one);
    print_read_on(one);
    run_result one_try = library_run(8, 128, 300, 100, 1, true);
    print_run("tryPush", one_try);
    print_read_on(one_try);
    printf("\n== 32 subscribers at 100 Hz, 128 objects, 31 of them stop reading\n");
    run_result stalled = library_run(32, 128, 300, 100, 31);
    print_run("push", stalled);
    print_read_on(stalled);
}

// Reads the streams in a child process, so that the readers' buffers do not
// count in the producer's memory; returns the number of whole records read
// once every stream has ended, through `result`.
pid_t read_elsewhere(const std::vector<int>& fds, int result) {
    pid_t child = fork();
    if (child != 0) {
        return child;
    }
    // Only system calls from here on: the parent's other threads are gone.
    // Every other descriptor is closed, the producer's ends of the streams
    // among them, so that the streams end when the producer closes them.
    std::vector<int> keep(fds);
    keep.push_back(result);
    std::sort(keep.begin(), keep.end());
    unsigned from = 3;
    for (int fd : keep) {
        if (static_cast<unsigned>(fd) > from) {
            close_range(from, static_cast<unsigned>(fd) - 1, 0);
        }
        from = static_cast<unsigned>(fd) + 1;
    }
    close_range(from, ~0u, 0);
    static char buffer[1 << 16];
    std::vector<pollfd> polls;
    std::vector<uint64_t> left(fds.size(), 0);  // bytes of the current record still to come
    for (int fd : fds) {
        polls.push_back({fd, POLLIN, 0});
    }
    uint64_t records = 0;
    size_t open_streams = fds.size();
    while (open_streams > 0 && poll(polls.data(), polls.size(), -1) > 0) {
        for (size_t i = 0; i < polls.size(); ++i) {
            if (polls[i].fd < 0 || !polls[i].revents) {
                continue;
            }
            // A header is read whole: the record behind it is on its way.
            ssize_t got =
                left[i] ? read(polls[i].fd, buffer, std::min<uint64_t>(left[i], sizeof(buffer)))
                        : recv(polls[i].fd, buffer, 4, MSG_WAITALL);
            if (got <= 0) {
                polls[i].fd = -1;
                --open_streams;
                continue;
            }
            if (left[i]) {
                left[i] -= static_cast<uint64_t>(got);
                records += left[i] == 0;
            } else if (got == 4) {
                uint32_t length;
                memcpy(&length, buffer, 4);
                left[i] = ntohl(length) - 4;
            }
        }
    }
    ssize_t ignored = write(result, &records, sizeof(records));
    (void)ignored;
    _exit(0);
}

void memory_section() {
    constexpr int OBJECTS = 100'000, SUBSCRIBERS = 32, FRAMES = 10;
    printf(
        "\n== memory: %d objects, %d subscribers with three distinct option sets, %d frames"
        " at 2 Hz\n",
        OBJECTS, SUBSCRIBERS, FRAMES);
    RadarScene::Frame frame = full_frame(OBJECTS);
    std::string one;
    RadarScene::SerializeFrameOptions all;
    all.bounding_box = all.polygon = all.velocity = all.geolocation = true;
    RadarScene::serializeFrame(one, frame, all);
    size_t scene_kib = one.size() / 1024;
    std::string().swap(one);
    const std::vector<std::vector<const char*>> option_sets = {
        DEFAULT_FEATURES,
        {"BOUNDINGBOX_ENABLED", "VELOCITY_ENABLED", "POLYGON_ENABLED", "GEOLOCATION_ENABLED"},
        {}};
    long idle_kib, peak_kib, after_kib;
    uint64_t delivered = 0;
    {
        auto p = std::make_unique<producer>();
        sd_bus* bus = nullptr;
        sd_bus_open_system(&bus);
        std::vector<int> fds;
        for (int i = 0; i < SUBSCRIBERS; ++i) {
            fds.push_back(subscribe(bus, option_sets[static_cast<size_t>(i) % 3]));
        }
        int result[2];
        if (pipe(result) < 0) {
            return;
        }
        pid_t child = read_elsewhere(fds, result[1]);
        for (int fd : fds) {
            close(fd);
        }
        close(result[1]);
        malloc_trim(0);
        reset_peak_rss();
        idle_kib = status_kib("VmRSS");
        for (int i = 0; i < FRAMES; ++i) {
            frame.time = now_ns();
            p->sink->push(0, frame);
            std::this_thread::sleep_for(std::chrono::milliseconds(500));
        }
        std::this_thread::sleep_for(std::chrono::seconds(1));
        peak_kib = status_kib("VmHWM");
        after_kib = status_kib("VmRSS");
        sd_bus_flush_close_unref(bus);
        p.reset();  // ends the streams
        if (read(result[0], &delivered, sizeof(delivered)) != sizeof(delivered)) {
            delivered = 0;
        }
        close(result[0]);
        waitpid(child, nullptr, 0);
    }
    printf(
        "  one serialized scene (all options) %zu KiB; producer RSS idle %ld KiB,"
        " peak above idle %ld KiB (%.2fx the scene), a second after the last send %ld KiB"
        " above idle; scenes delivered %llu/%d\n",
        scene_kib, idle_kib, peak_kib - idle_kib,
        static_cast<double>(peak_kib - idle_kib) / static_cast<double>(scene_kib),
        after_kib - idle_kib, static_cast<unsigned long long>(delivered), FRAMES * SUBSCRIBERS);
}

// One reader that reads everything, scenes of 20,000 objects (about
// 1.78 MB with the default options) pushed at 100 Hz, 150 Hz and back to
// back for 4 s each: the scenes delivered per second must not fall as the
// push rate rises.
void overload_section() {
    constexpr int OBJECTS = 20'000;
    printf("\n== one reader, %d objects, pushed at a rising rate for 4 s\n", OBJECTS);
    for (double rate : {100.0, 150.0, 0.0}) {
        producer p;
        sd_bus* bus = nullptr;
        sd_bus_open_system(&bus);
        std::vector<reader> readers(1);
        readers[0].fd = subscribe(bus);
        int frames = rate > 0 ? static_cast<int>(rate * 4) : 0;
        auto start = clock_type::now();
        auto until = start + std::chrono::seconds(4);
        // Back to back: as many pushes as 4 s take.
        std::function<void(const RadarScene::Frame&)> push = [&](const RadarScene::Frame& f) {
            p.sink->push(0, f);
        };
        run_result result;
        if (rate > 0) {
            result = drive(OBJECTS, frames, rate, readers, push,
                           [&] { shutdown(readers[0].fd, SHUT_RDWR); });
        } else {
            RadarScene::Frame frame = full_frame(OBJECTS);
            readers[0].start();
            while (clock_type::now() < until) {
                frame.time = now_ns();
                push(frame);
                ++frames;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
            shutdown(readers[0].fd, SHUT_RDWR);
            readers[0].thread.join();
            result.delivered = readers[0].received;
            result.max_gap_us = readers[0].max_gap_us;
        }
        double seconds = std::chrono::duration<double>(clock_type::now() - start).count() - 0.3;
        uint64_t handoff = 0;
        uint64_t replaced = frames_replaced(bus, &handoff);
        close(readers[0].fd);
        sd_bus_flush_close_unref(bus);
        printf(
            "  %-12s pushed %5d, delivered %5zu (%6.1f/s), replaced %5llu (at the hand-off"
            " %5llu), longest gap %7.1f ms\n",
            rate > 0 ? (std::to_string(static_cast<int>(rate)) + " Hz").c_str() : "back to back",
            frames, result.delivered, static_cast<double>(result.delivered) / seconds,
            static_cast<unsigned long long>(replaced), static_cast<unsigned long long>(handoff),
            result.max_gap_us / 1e3);
    }
}

// Eight readers in eight option sets that take 64 KiB every 5 ms (about
// 13 MB/s), beside scenes of 5,000 objects (about 448 KB) pushed back to
// back for 4 s: records each, the longest gap, sessions broken.
void throttled_section() {
    constexpr int OBJECTS = 5'000;
    printf(
        "\n== 8 readers in 8 option sets taking 64 KiB every 5 ms, %d objects back to back"
        " for 4 s\n",
        OBJECTS);
    producer p;
    sd_bus* bus = nullptr;
    sd_bus_open_system(&bus);
    const char* features[3] = {"BOUNDINGBOX_ENABLED", "POLYGON_ENABLED", "VELOCITY_ENABLED"};
    std::vector<int> fds;
    for (int set = 0; set < 8; ++set) {
        std::vector<const char*> chosen;
        for (int bit = 0; bit < 3; ++bit) {
            if (set & (1 << bit)) {
                chosen.push_back(features[bit]);
            }
        }
        fds.push_back(subscribe(bus, chosen));
    }
    std::vector<size_t> records(fds.size());
    std::vector<double> gaps_ms(fds.size());
    std::vector<std::thread> threads;
    for (size_t i = 0; i < fds.size(); ++i) {
        threads.emplace_back([&, i] {
            std::vector<char> chunk(64 * 1024);
            uint64_t left = 0;
            std::string header;
            auto last = clock_type::now();
            for (ssize_t n; (n = read(fds[i], chunk.data(), chunk.size())) > 0;) {
                for (ssize_t at = 0; at < n;) {
                    if (left == 0) {
                        header += chunk[static_cast<size_t>(at++)];
                        if (header.size() == 4) {
                            uint32_t length;
                            memcpy(&length, header.data(), 4);
                            left = ntohl(length) - 4;
                            header.clear();
                        }
                        continue;
                    }
                    uint64_t take = std::min<uint64_t>(left, static_cast<uint64_t>(n - at));
                    at += static_cast<ssize_t>(take);
                    left -= take;
                    if (left == 0) {
                        auto now = clock_type::now();
                        if (records[i]++ > 0) {
                            gaps_ms[i] = std::max(
                                gaps_ms[i],
                                std::chrono::duration<double, std::milli>(now - last).count());
                        }
                        last = now;
                    }
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
        });
    }
    RadarScene::Frame frame = full_frame(OBJECTS);
    int pushed = 0;
    for (auto until = clock_type::now() + std::chrono::seconds(4); clock_type::now() < until;
         ++pushed) {
        frame.time = now_ns();
        p.sink->push(0, frame);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    int broken = sessions_broken(bus);
    for (int fd : fds) {
        shutdown(fd, SHUT_RDWR);
    }
    for (auto& t : threads) {
        t.join();
    }
    for (int fd : fds) {
        close(fd);
    }
    sd_bus_flush_close_unref(bus);
    summary r = summarise(std::vector<double>(records.begin(), records.end()));
    printf(
        "  pushed %d; records per reader min %zu p50 %.0f max %.0f; longest gap %.1f ms;"
        " sessions broken %d\n",
        pushed, *std::min_element(records.begin(), records.end()), r.p50, r.max,
        *std::max_element(gaps_ms.begin(), gaps_ms.end()), broken);
}

// 31 sessions that never read, with 100,000-object frames at 10 Hz for 2 s,
// in 3 and in 31 option sets: the producer's peak above idle as a multiple
// of one scene with every option.
void stalled_memory_section() {
    constexpr int OBJECTS = 100'000, SESSIONS = 31, FRAMES = 20;
    printf("\n== memory: %d sessions that never read, %d objects at 10 Hz for 2 s\n", SESSIONS,
           OBJECTS);
    RadarScene::Frame frame = full_frame(OBJECTS);
    std::string one;
    RadarScene::SerializeFrameOptions all;
    all.bounding_box = all.polygon = all.velocity = all.geolocation = all.raw = true;
    RadarScene::serializeFrame(one, frame, all);
    size_t scene_kib = one.size() / 1024;
    std::string().swap(one);
    const char* features[5] = {"BOUNDINGBOX_ENABLED", "POLYGON_ENABLED", "VELOCITY_ENABLED",
                               "GEOLOCATION_ENABLED", "RAW_ENABLED"};
    for (int sets : {3, 31}) {
        auto p = std::make_unique<producer>();
        sd_bus* bus = nullptr;
        sd_bus_open_system(&bus);
        std::vector<int> fds;
        for (int i = 0; i < SESSIONS; ++i) {
            int set = 1 + i % sets;  // 1..31: each a distinct non-empty choice
            std::vector<const char*> chosen;
            for (int bit = 0; bit < 5; ++bit) {
                if (set & (1 << bit)) {
                    chosen.push_back(features[bit]);
                }
            }
            fds.push_back(subscribe(bus, chosen));
        }
        malloc_trim(0);
        reset_peak_rss();
        long idle_kib = status_kib("VmRSS");
        for (int i = 0; i < FRAMES; ++i) {
            frame.time = now_ns();
            p->sink->push(0, frame);
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        long peak_kib = status_kib("VmHWM");
        sd_bus_flush_close_unref(bus);
        p.reset();
        for (int fd : fds) {
            close(fd);
        }
        printf("  %2d option sets: scene %zu KiB, peak above idle %ld KiB (%.2fx the scene)\n",
               sets, scene_kib, peak_kib - idle_kib,
               static_cast<double>(peak_kib - idle_kib) / static_cast<double>(scene_kib));
    }
}

// A call without arguments to the provider; its round trip in us.
double round_trip_us(sd_bus* bus, const char* interface, const char* member) {
    auto start = clock_type::now();
    sd_bus_message* reply = nullptr;
    sd_bus_call_method(bus, "com.tessel.RadarSceneProvider1", "/com/tessel/RadarSceneProvider1",
                       interface, member, nullptr, &reply, "");
    sd_bus_message_unref(reply);
    return std::chrono::duration<double, std::micro>(clock_type::now() - start).count();
}

void storm_section() {
    printf(
        "\n== 100 clients calling SubscribeSocket in a loop, keeping what they get unread,"
        " beside one reader at 100 Hz, 128 objects, for 10 s\n");
    producer p;
    sd_bus* bus = nullptr;
    sd_bus_open_system(&bus);
    std::vector<reader> good(1);
    good[0].fd = subscribe(bus);
    std::atomic<bool> storming{true};
    std::vector<std::thread> clients;
    for (int t = 0; t < 4; ++t) {
        clients.emplace_back([&] {
            std::vector<sd_bus*> buses(25);
            for (sd_bus*& b : buses) {
                sd_bus_open_system(&b);
            }
            std::vector<int> unread;
            while (storming) {
                for (sd_bus* b : buses) {
                    if (int fd = subscribe(b); fd >= 0) {
                        unread.push_back(fd);
                    }
                }
            }
            for (int fd : unread) {
                close(fd);
            }
            for (sd_bus* b : buses) {
                sd_bus_flush_close_unref(b);
            }
        });
    }
    std::vector<double> ping, introspect, channels;
    std::thread caller([&] {
        sd_bus* b = nullptr;
        sd_bus_open_system(&b);
        while (storming) {
            ping.push_back(round_trip_us(b, "org.freedesktop.DBus.Peer", "Ping"));
            introspect.push_back(
                round_trip_us(b, "org.freedesktop.DBus.Introspectable", "Introspect"));
            channels.push_back(
                round_trip_us(b, "com.tessel.RadarSceneProvider1.Scene", "GetNumberOfChannels"));
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        sd_bus_flush_close_unref(b);
    });
    run_result result = drive(
        128, 1000, 100, good, [&](const RadarScene::Frame& f) { p.sink->push(0, f); },
        [&] { shutdown(good[0].fd, SHUT_RDWR); });
    result.replaced = frames_replaced(bus);
    storming = false;
    for (auto& client : clients) {
        client.join();
    }
    caller.join();
    close(good[0].fd);
    sd_bus_flush_close_unref(bus);
    print_run("push", result);
    print_read_on(result);
    for (auto& [name, sample] : {std::pair{"Ping", &ping}, std::pair{"Introspect", &introspect},
                                 std::pair{"GetNumberOfChannels", &channels}}) {
        summary s = summarise(*sample);
        printf("  %-20s us p50 %8.1f p99 %8.1f max %9.1f (%zu calls)\n", name, s.p50, s.p99, s.max,
               sample->size());
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (!getenv("DBUS_SYSTEM_BUS_ADDRESS")) {
        fprintf(stderr,
                "radarscene_bench: set DBUS_SYSTEM_BUS_ADDRESS to a bus it may own names on\n");
        return 1;
    }
    // Sections named on the command line run alone; without names, all run
    // but "push", whose rows the fan-out section has already measured.
    auto wanted = [&](std::string_view name) {
        bool named = std::find(argv + 1, argv + argc, name) != argv + argc;
        return named || (argc < 2 && name != "push");
    };
    // The library's log lines (closed sessions) would drown the tables.
    int log = open("/dev/null", O_WRONLY);
    int saved = dup(STDERR_FILENO);
    dup2(log, STDERR_FILENO);
    using section = std::pair<const char*, void (*)()>;
    for (auto [name, run] :
         {section{"memory", memory_section}, section{"stalledmemory", stalled_memory_section},
          section{"codec", codec_section}, section{"overload", overload_section},
          section{"throttled", throttled_section}, section{"fanout", fanout_section},
          section{"push", push_section}, section{"stalled", slow_subscriber_section},
          section{"storm", storm_section}}) {
        if (wanted(name)) {
            run();
        }
    }
    dup2(saved, STDERR_FILENO);
    printf("\npeak RSS %ld KiB\n", peak_rss_kib());
    return 0;
}
