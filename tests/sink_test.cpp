#include "common/log.h"
#include "geolocation/geolocation.h"
#include "permo2_fake.h"
#include "providerdbus/sdbuscompat.h"
#include "support/eventloopthread.h"
#include "support/testbus.h"
#include "support/testutil.h"
#include "varro_fake.h"

#include <radarscene/RadarScene.h>
#include <radarscene/scene.pb.h>

#include <nlohmann/json.hpp>

#include <gtest/gtest.h>

#include <sys/socket.h>

#include <thread>

namespace {

constexpr const char* SERVICE = "com.tessel.RadarSceneProvider1";
constexpr const char* PATH = "/com/tessel/RadarSceneProvider1";

RadarScene::Frame sample_frame(uint64_t time) {
    RadarScene::Frame frame;
    frame.time = time;
    RadarScene::FrameObject human;
    human.id = 1;
    human.set_bounding_box({0, 0, 1, 2});
    human.set_classifications({{1, 0.9}});
    RadarScene::FrameObject vehicle;
    vehicle.id = 2;
    vehicle.set_classifications({{2, 0.8}});
    frame.objects = {human, vehicle};
    return frame;
}

// A producer's set-up: a Sink on its own connection and loop, and a
// subscriber on a second connection.
class SinkEndToEnd : public ::testing::Test {
protected:
    SinkEndToEnd() {
        permo2_fake::reset();
        varro_fake::reset();
        producer_connection = sdbus::createSystemBusConnection();
        sink = std::make_unique<RadarScene::Sink>(
            *producer_connection, loop.event(),
            RadarScene::SinkConfig{"radar-test", SERVICE, PATH, false});
        sink->addSupportedChannel(0);
        sink->addObjectClassification(1, "Human");
        sink->addObjectClassification(2, "Vehicle");
        sink->requestName();
        source =
            std::make_unique<RadarScene::ConnectionEventSource>(*producer_connection, loop.event());
        loop.start();
        subscriber_connection = sdbus::createSystemBusConnection();
        subscriber = sdbus::createProxy(*subscriber_connection, sdbus_compat::ServiceName(SERVICE),
                                        sdbus_compat::ObjectPath(PATH));
    }

    ~SinkEndToEnd() override {
        loop.stop();
        source.reset();
        sink.reset();
    }

    std::pair<sdbus::UnixFd, int32_t> subscribe(std::map<std::string, bool> features) {
        std::tuple<sdbus::UnixFd, int32_t> reply;
        subscriber->callMethod("SubscribeSocket")
            .onInterface("com.tessel.RadarSceneProvider1.Scene")
            .withArguments(int32_t{3}, int32_t{0}, features)
            .storeResultsTo(reply);
        return {std::get<0>(reply), std::get<1>(reply)};
    }

    static RadarScene::Scene next_scene(int fd) {
        std::string payload;
        EXPECT_TRUE(read_record(fd, payload));
        RadarScene::Scene scene;
        EXPECT_TRUE(scene.ParseFromString(payload));
        return scene;
    }

    TestBus bus;
    EventLoopThread loop;
    std::unique_ptr<sdbus::IConnection> producer_connection;
    std::unique_ptr<RadarScene::Sink> sink;
    std::unique_ptr<RadarScene::ConnectionEventSource> source;
    std::unique_ptr<sdbus::IConnection> subscriber_connection;
    std::unique_ptr<sdbus::IProxy> subscriber;
};

}  // namespace

TEST_F(SinkEndToEnd, SubscribersAndTopicsReceiveEveryPush) {
    RadarScene::SerializeFrameOptions boxes;
    boxes.bounding_box = true;
    sink->addMessageBrokerTopic("scene", boxes);
    sink->addMessageBrokerTopicZRF("zrf");
    sink->addVarroTopicZRFv1("zrfv1");

    auto [handle, session] = subscribe({{"BOUNDINGBOX_ENABLED", true}});
    EXPECT_EQ(session, 0);
    sink->push(0, sample_frame(10));
    RadarScene::Scene scene = next_scene(handle.get());
    EXPECT_EQ(scene.time(), 10u);
    ASSERT_EQ(scene.objects_size(), 2);
    EXPECT_TRUE(scene.objects(0).has_bounding_box());

    // The raw mask applies from the next push on.
    sink->setRawMask(1ul << 2);
    sink->push(0, sample_frame(11));
    scene = next_scene(handle.get());
    EXPECT_EQ(scene.time(), 11u);
    ASSERT_EQ(scene.objects_size(), 1);
    EXPECT_EQ(scene.objects(0).id(), 1u);

    // Scene bytes are decoded and pushed the same way.
    std::string bytes;
    RadarScene::serializeFrame(bytes, sample_frame(12), {});
    sink->push(0, std::string_view(bytes));
    EXPECT_EQ(next_scene(handle.get()).time(), 12u);

    auto items = varro_fake::written();
    ASSERT_EQ(items.size(), 9u);
    EXPECT_EQ(items[0].topic, "mdb.scene");
    EXPECT_EQ(items[1].topic, "mdb.zrf");
    EXPECT_EQ(items[2].topic, "zrfv1");
    // The mask applies to the topics too, and the classes are the Sink's.
    auto v1_masked =
        nlohmann::json::parse(nlohmann::json::parse(items[5].json)["data"].get<std::string>());
    EXPECT_EQ(v1_masked["detections"].size(), 1u);
    EXPECT_EQ(v1_masked["detections"][0]["class"], "Human");
}

TEST_F(SinkEndToEnd, SubscribersThatVanishTogetherAreRemovedByTheTimer) {
    // One client holding every session exits: all of them break in one send.
    std::vector<sdbus::UnixFd> handles;
    for (int i = 0; i < 32; ++i) {
        handles.push_back(subscribe({}).first);
    }
    handles.clear();
    sink->push(0, sample_frame(1));
    auto subscribed = [&] {
        try {
            subscribe({});
            return true;
        } catch (const sdbus::Error&) {
            return false;
        }
    };
    EXPECT_TRUE(wait_until(subscribed, std::chrono::seconds(5),
                           [] { std::this_thread::sleep_for(std::chrono::milliseconds(100)); }));
}

TEST_F(SinkEndToEnd, StalledSubscribersNeverHoldTheLoop) {
    // Sessions that never read, and scenes too big for their socket buffers:
    // every send has stalled sessions to wait for, and the producer is
    // always blocked in push behind one.
    std::vector<sdbus::UnixFd> unread;
    for (int i = 0; i < 4; ++i) {
        unread.push_back(subscribe({}).first);
    }
    sdbus::UnixFd good = subscribe({}).first;
    RadarScene::Frame big = sample_frame(0);
    big.objects[0].set_covariance(std::vector<double>(250'000, 0.5));
    std::atomic<bool> producing{true};
    std::thread producer([&] {
        for (uint64_t time = 1; producing; ++time) {
            big.time = time;
            sink->push(0, big);
        }
    });
    std::atomic<int> received{0};
    std::thread reader([&] {
        std::string payload;
        while (read_record(good.get(), payload)) {
            ++received;
        }
    });

    // The loop answers every call at once, subscriptions (granted or
    // refused) included, while new unread sessions keep stalling.
    auto answered = [&](const char* member, const char* interface, auto&&... results) {
        try {
            auto timeout = std::chrono::milliseconds(500);
            if constexpr (sizeof...(results) > 0) {
                subscriber->callMethod(member)
                    .onInterface(interface)
                    .withTimeout(timeout)
                    .withArguments(int32_t{3}, int32_t{0}, std::map<std::string, bool>{})
                    .storeResultsTo(results...);
            } else {
                // The call is made, and its reply awaited, as the invoker goes.
                subscriber->callMethod(member).onInterface(interface).withTimeout(timeout);
            }
        } catch (const sdbus::Error& e) {
            return e.getName() != "org.freedesktop.DBus.Error.NoReply" &&
                   e.getName() != "org.freedesktop.DBus.Error.Timeout";
        }
        return true;
    };
    const char* scene = "com.tessel.RadarSceneProvider1.Scene";
    for (int round = 0; round < 30; ++round) {
        EXPECT_TRUE(answered("Ping", "org.freedesktop.DBus.Peer"));
        EXPECT_TRUE(answered("GetNumberOfChannels", scene));
        int32_t session = -1;
        EXPECT_TRUE(answered("SubscribeSocket", scene, unread.emplace_back(), session));
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    EXPECT_GE(received, 3);
    producing = false;
    producer.join();
    shutdown(good.get(), SHUT_RDWR);
    reader.join();
}

TEST_F(SinkEndToEnd, EachSinkInstallsAGeolocationClientAndTakesItAlong) {
    const GeoLocation* first = GeoLocationReader().get();
    loop.stop();
    const GeoLocation* second_client = nullptr;
    {
        auto connection = sdbus::createSystemBusConnection();
        RadarScene::Sink second(
            *connection, loop.event(),
            RadarScene::SinkConfig{"radar-2", "com.tessel.Other", "/other", false});
        second_client = GeoLocationReader().get();
        EXPECT_NE(second_client, first);
    }
    EXPECT_NE(GeoLocationReader().get(), second_client);
}

// A flood of one kind of line is reported when its second is over, by the
// Sink's timer, with no later line to carry the report.
TEST_F(SinkEndToEnd, SuppressedLinesAreReportedWithoutALaterLine) {
    StderrCapture log;
    for (int i = 0; i < 20; ++i) {
        log_warning("Frame %d late", i);
    }
    EXPECT_TRUE(
        wait_until([&] { return log.count("<4>Suppressed 15 lines like: Frame 0 late\n"); }));
}
