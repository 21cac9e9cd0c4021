// RadarScene::Subscriber against real providers on a private bus: a Sink in this process, and
// the demo producer as another process that is killed and restarted.
#include "permo2_fake.h"
#include "support/eventloopthread.h"
#include "support/testbus.h"
#include "support/testutil.h"

#include <radarscene/Subscriber.h>
#include <radarscene/scene.pb.h>
#include <sdbus-c++/sdbus-c++.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <future>
#include <thread>

using RadarScene::ReadResult;
using RadarScene::Subscriber;
using RadarScene::SubscriberConfig;
using RadarScene::SubscriberError;
using RadarScene::SubscriberState;
using namespace std::chrono_literals;

namespace {

constexpr const char* SERVICE = "com.tessel.RadarSceneProvider1";
constexpr const char* PATH = "/com/tessel/RadarSceneProvider1";

struct session_row_t {
    uint64_t scenes = 0, replaced = 0, bytes = 0;
    std::string state;
};

// The provider's own account of a session, from its Statistics object.
session_row_t provider_row(int32_t session) {
    sd_bus* bus = nullptr;
    sd_bus_message* reply = nullptr;
    session_row_t row;
    EXPECT_GE(sd_bus_open_system(&bus), 0);
    EXPECT_GE(sd_bus_call_method(bus, SERVICE, "/com/tessel/RadarSceneProvider1/Statistics",
                                 "com.tessel.RadarSceneProvider1.Statistics", "GetSessions",
                                 nullptr, &reply, ""),
              0);
    sd_bus_message_enter_container(reply, 'a', "(iixusttts)");
    int32_t id = 0, channel = 0;
    int64_t since = 0;
    uint32_t pid = 0;
    const char *comm = nullptr, *state = nullptr;
    session_row_t r;
    while (sd_bus_message_read(reply, "(iixusttts)", &id, &channel, &since, &pid, &comm, &r.scenes,
                               &r.replaced, &r.bytes, &state) > 0) {
        if (id == session) {
            row = r;
            row.state = state;
        }
    }
    sd_bus_message_unref(reply);
    sd_bus_flush_close_unref(bus);
    return row;
}

RadarScene::Frame frame_at(uint64_t time, int objects) {
    RadarScene::Frame frame;
    frame.time = time;
    for (int i = 0; i < objects; ++i) {
        RadarScene::FrameObject o;
        o.id = i;
        o.set_bounding_box({1, 2, 3, 4});
        o.set_position({10.0 + i, 20, 0});
        frame.objects.push_back(o);
    }
    return frame;
}

size_t open_descriptors() {
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                                             std::filesystem::directory_iterator()));
}

// A producer in this process: a Sink on its own connection and loop.
class InProcess : public ::testing::Test {
protected:
    InProcess() { permo2_fake::reset(); }
    ~InProcess() override { stop(); }

    void start() {
        connection = sdbus::createSystemBusConnection();
        sink = std::make_unique<RadarScene::Sink>(
            *connection, loop.event(), RadarScene::SinkConfig{"test", SERVICE, PATH, false});
        sink->addSupportedChannel(0);
        sink->requestName();
        source = std::make_unique<RadarScene::ConnectionEventSource>(*connection, loop.event());
        loop.start();
    }
    void stop() {
        loop.stop();
        source.reset();
        sink.reset();
        connection.reset();
    }

    TestBus bus;
    EventLoopThread loop;
    std::unique_ptr<sdbus::IConnection> connection;
    std::unique_ptr<RadarScene::Sink> sink;
    std::unique_ptr<RadarScene::ConnectionEventSource> source;
};

}  // namespace

TEST_F(InProcess, EachWayOfReadingGetsEveryScene) {
    start();
    size_t descriptors = open_descriptors();
    Subscriber blocking({.bounding_box = true});
    Subscriber decoding({.bounding_box = true});
    Subscriber polled({.bounding_box = true});
    Subscriber attached({.bounding_box = true});
    EXPECT_EQ(fcntl(polled.fd(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    std::vector<uint64_t> times[4];
    sd_event* event = nullptr;
    ASSERT_GE(sd_event_new(&event), 0);
    attached.attach(event, [&](const std::string& bytes) {
        RadarScene::Scene scene;
        ASSERT_TRUE(scene.ParseFromString(bytes));
        times[3].push_back(scene.time());
    });
    // Each push waits for the first reader, so that no newer frame replaces it.
    constexpr uint64_t FRAMES = 20;
    std::string bytes;
    RadarScene::Frame frame;
    for (uint64_t t = 1; t <= FRAMES; ++t) {
        sink->push(0, frame_at(t * 1000, static_cast<int>(t)));
        ASSERT_EQ(blocking.read(bytes, 5s), ReadResult::SCENE);
        RadarScene::Scene scene;
        ASSERT_TRUE(scene.ParseFromString(bytes));
        times[0].push_back(scene.time());
    }
    while (times[1].size() < FRAMES && decoding.read(frame, 5s) == ReadResult::SCENE) {
        EXPECT_EQ(frame.objects.size(), times[1].size() + 1);
        times[1].push_back(frame.time);
    }
    int epoll = epoll_create1(EPOLL_CLOEXEC);
    epoll_event watch{EPOLLIN, {}};
    ASSERT_EQ(epoll_ctl(epoll, EPOLL_CTL_ADD, polled.fd(), &watch), 0);
    while (times[2].size() < FRAMES && epoll_wait(epoll, &watch, 1, 5000) == 1) {
        while (polled.readNow(bytes) == ReadResult::SCENE) {
            RadarScene::Scene scene;
            ASSERT_TRUE(scene.ParseFromString(bytes));
            times[2].push_back(scene.time());
        }
    }
    close(epoll);
    while (times[3].size() < FRAMES && sd_event_run(event, 5'000'000) > 0) {
    }
    std::vector<uint64_t> expected;
    for (uint64_t t = 1; t <= FRAMES; ++t) {
        expected.push_back(t * 1000);
    }
    for (const auto& got : times) {
        EXPECT_EQ(got, expected);
    }
    EXPECT_EQ(blocking.readNow(bytes), ReadResult::NOTHING);
    EXPECT_EQ(blocking.read(bytes, 20ms), ReadResult::NOTHING);

    // Scenes and bytes as the provider counted them.
    RadarScene::SubscriberStats stats = blocking.stats(true);
    session_row_t row = provider_row(blocking.session());
    EXPECT_EQ(stats.scenes, FRAMES);
    EXPECT_EQ(row.scenes, FRAMES);
    EXPECT_EQ(stats.bytes, row.bytes);
    EXPECT_EQ(stats.missing, 0u);
    EXPECT_EQ(stats.frames_replaced, 0u);

    // Closing and destroying unsubscribe, and leave no descriptor behind.
    int32_t closed = polled.session(), destroyed = attached.session();
    polled.close();
    polled.close();
    EXPECT_EQ(polled.fd(), -1);
    EXPECT_EQ(polled.read(bytes), ReadResult::ENDED);
    { Subscriber gone = std::move(attached); }
    sd_event_unref(event);
    EXPECT_EQ(provider_row(closed).state, "unsubscribed");
    EXPECT_EQ(provider_row(destroyed).state, "unsubscribed");
    blocking = Subscriber({.bounding_box = true});
    decoding.close();
    blocking.close();
    // The channel's sending thread, retired with its last session, is
    // joined by the provider's next timer tick.
    EXPECT_TRUE(wait_until([&] { return open_descriptors() == descriptors; }));
}

TEST_F(InProcess, FramesTheProviderReplacedAreTheGapsTheSubscriberSees) {
    start();
    Subscriber subscriber({.bounding_box = true});
    std::string bytes;
    // Regular scene times, then many large frames while the subscriber does not read: the
    // provider replaces those its socket cannot take.
    constexpr uint64_t FRAMES = 30;
    for (uint64_t t = 1; t <= FRAMES; ++t) {
        sink->push(0, frame_at(t * 1'000'000, t <= 3 ? 1 : 3000));
        if (t <= 3) {
            ASSERT_EQ(subscriber.read(bytes, 5s), ReadResult::SCENE);
        }
    }
    RadarScene::Scene scene;
    do {
        ASSERT_EQ(subscriber.read(bytes, 5s), ReadResult::SCENE);
        ASSERT_TRUE(scene.ParseFromString(bytes));
    } while (scene.time() != FRAMES * 1'000'000);
    // Frames replaced before the sending thread took them, and those replaced while the
    // socket was full (which the provider counts for the session), are the gaps.
    RadarScene::SubscriberStats stats = subscriber.stats(true);
    session_row_t row = provider_row(subscriber.session());
    EXPECT_GT(stats.missing, 0u);
    EXPECT_EQ(stats.scenes + stats.missing, FRAMES);
    EXPECT_EQ(stats.scenes, row.scenes);
    EXPECT_EQ(stats.bytes, row.bytes);
    EXPECT_EQ(stats.frames_replaced, row.replaced);
}

TEST_F(InProcess, RefusalsAreErrorsThatNameTheirCause) {
    auto error_of = [](const SubscriberConfig& config) -> std::string {
        try {
            Subscriber subscriber(config);
        } catch (const SubscriberError& e) {
            return e.name() + ": " + e.message();
        }
        return "";
    };
    EXPECT_EQ(error_of({}).rfind("org.freedesktop.DBus.Error.ServiceUnknown: ", 0), 0u);
    Subscriber waiting({.follow = true});
    EXPECT_EQ(waiting.state(), SubscriberState::WAITING);
    std::string bytes;
    EXPECT_EQ(waiting.read(bytes, 0ms), ReadResult::NOTHING);
    start();
    ASSERT_EQ(waiting.read(bytes, 5s), ReadResult::STATE);
    EXPECT_EQ(waiting.state(), SubscriberState::SUBSCRIBED);

    EXPECT_EQ(error_of({.channel = 5}),
              "org.freedesktop.DBus.Error.Failed: Error subscribing channel: channel 5 is not "
              "served; the provider serves 0");
    permo2_fake::refuse(2, "User may not subscribe");
    EXPECT_EQ(error_of({}), "org.freedesktop.DBus.Error.AccessDenied: User may not subscribe");
    permo2_fake::reset();

    // A record over the limit ends the stream and its session.
    Subscriber small({.bounding_box = true, .max_record = 100});
    sink->push(0, frame_at(1, 1));
    ASSERT_EQ(small.read(bytes, 5s), ReadResult::SCENE);
    int32_t session = small.session();
    sink->push(0, frame_at(2, 50));
    EXPECT_EQ(small.read(bytes, 5s), ReadResult::ENDED);
    EXPECT_EQ(small.state(), SubscriberState::ENDED);
    EXPECT_NE(small.error().find("over the limit of 100"), std::string::npos) << small.error();
    EXPECT_EQ(provider_row(session).state, "unsubscribed");
}

TEST_F(InProcess, CloseFromAnotherThreadWakesABlockedRead) {
    start();
    Subscriber subscriber({});
    int32_t session = subscriber.session();
    std::promise<void> reading;
    auto result = std::async(std::launch::async, [&] {
        std::string bytes;
        reading.set_value();
        return subscriber.read(bytes);
    });
    reading.get_future().wait();
    subscriber.close();
    ASSERT_EQ(result.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(result.get(), ReadResult::ENDED);
    EXPECT_EQ(subscriber.error(), "");
    EXPECT_EQ(provider_row(session).state, "unsubscribed");
}

namespace {

// The demo producer as a provider process of its own.
class Producer : public ::testing::Test {
protected:
    ~Producer() override { kill_producer(SIGTERM); }

    void start_producer() {
        producer = fork();
        if (producer == 0) {
            setenv("VARRO_DEV_DIR", "/tmp/radarscene-wt37-varro", 1);
            int null = open("/dev/null", O_WRONLY);
            dup2(null, STDERR_FILENO);
            execl(RADARSCENE_DEMO_PRODUCER, "radarscene-demo-producer", "--rate", "200",
                  "--objects", "300", static_cast<char*>(nullptr));
            _exit(127);
        }
    }
    void kill_producer(int signal) {
        if (producer > 0) {
            kill(producer, signal);
            waitpid(producer, nullptr, 0);
            producer = -1;
        }
    }

    TestBus bus;
    pid_t producer = -1;
};

}  // namespace

TEST_F(Producer, AFollowingSubscriberOutlivesFiftyRestartsWithoutACutOrRepeatedScene) {
    start_producer();
    std::optional<Subscriber> once;
    ASSERT_TRUE(wait_until([&] {
        try {
            once.emplace(SubscriberConfig{});
        } catch (const SubscriberError&) {
        }
        return once.has_value();
    }));
    std::optional<Subscriber> follower(SubscriberConfig{.follow = true});
    std::map<SubscriberState, int> changes;
    uint64_t last_time = 0;
    int since_start = 0;
    std::string bytes;
    RadarScene::Scene scene;
    int restarts = 0;
    while (changes[SubscriberState::RESUBSCRIBED] < 50 || since_start < 3) {
        ReadResult r = follower->read(bytes, 10s);
        ASSERT_NE(r, ReadResult::NOTHING);
        ASSERT_NE(r, ReadResult::ENDED) << follower->error();
        if (r == ReadResult::STATE) {
            ++changes[follower->state()];
            since_start = 0;
            continue;
        }
        ASSERT_TRUE(scene.ParseFromString(bytes));
        ASSERT_EQ(scene.objects_size(), 300);
        ASSERT_GT(scene.time(), last_time);
        last_time = scene.time();
        if (++since_start == 3 && restarts < 50) {
            kill_producer(SIGKILL);
            start_producer();
            ++restarts;
        }
    }
    EXPECT_EQ(changes[SubscriberState::PROVIDER_GONE], 50);
    EXPECT_EQ(follower->stats().subscriptions, 51u);

    // One that does not follow ended with the first provider, cleanly.
    while (once->read(bytes, 10s) == ReadResult::SCENE) {
    }
    EXPECT_EQ(once->state(), SubscriberState::ENDED);
    EXPECT_TRUE(once->error() == "the provider closed the stream" ||
                once->error() == "the provider left the bus")
        << once->error();
}

TEST_F(Producer, TheAccessCheckRefusesAnotherUser) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to run a subscriber as another user";
    }
    start_producer();
    ASSERT_TRUE(wait_until([] {
        try {
            Subscriber probe({});
            return true;
        } catch (const SubscriberError&) {
            return false;
        }
    }));
    int pipe_fds[2];
    ASSERT_EQ(pipe(pipe_fds), 0);
    pid_t child = fork();
    if (child == 0) {
        std::string text = "no error";
        if (setresgid(65534, 65534, 65534) < 0 || setresuid(65534, 65534, 65534) < 0) {
            _exit(2);
        }
        try {
            Subscriber refused({});
        } catch (const SubscriberError& e) {
            text = e.name() + ": " + e.message();
        }
        (void)!write(pipe_fds[1], text.data(), text.size());
        _exit(0);
    }
    close(pipe_fds[1]);
    char text[512] = {};
    (void)!read(pipe_fds[0], text, sizeof(text) - 1);
    close(pipe_fds[0]);
    waitpid(child, nullptr, 0);
    EXPECT_STREQ(text,
                 "org.freedesktop.DBus.Error.AccessDenied: User nobody is not authorized for "
                 "com.tessel.RadarSceneProvider1.Scene.SubscribeSocket");
}
