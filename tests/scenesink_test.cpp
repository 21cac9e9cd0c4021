#include "scenesink/scenesink.h"
#include "scenesender/scenesender.h"
#include "support/testutil.h"

#include <radarscene/scene.pb.h>

#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <thread>

namespace {

// A sink over a real sender with one subscriber. Holding the sender's mutex
// blocks the worker inside its send, which makes the hand-off observable
// without timing assumptions.
class SceneSink : public ::testing::Test {
protected:
    SceneSink() {
        auto session = std::make_unique<session_t>();
        session_set_state(*session, SESSION_STATE_ACTIVE);
        EXPECT_EQ(scene_sender_add_session(sender, session, peer), 0);
        sink = scene_sink_create(&sender);
    }

    static RadarScene::Frame frame(uint64_t time) {
        RadarScene::Frame f;
        f.time = time;
        return f;
    }

    uint64_t next_time() {
        std::string payload;
        if (!read_record(peer.get(), payload)) {
            return 0;
        }
        RadarScene::Scene scene;
        scene.ParseFromString(payload);
        return scene.time();
    }

    bool frame_pending() {
        std::lock_guard lock(sink->frame_mutex);
        return sink->pending != nullptr;
    }

    int slot_tokens() {
        int value = 0;
        sem_getvalue(&sink->slot_free, &value);
        return value;
    }

    scene_sender_t sender;
    unique_fd peer;
    std::unique_ptr<scene_sink_t> sink;
};

}  // namespace

TEST_F(SceneSink, PushOnStoppedSinkDropsTheFrame) {
    scene_sink_push(*sink, frame(1), 0);
    EXPECT_FALSE(frame_pending());
    scene_sink_start(*sink);
    scene_sink_stop(*sink);
    scene_sink_push(*sink, frame(2), 0);
    EXPECT_FALSE(frame_pending());
    EXPECT_TRUE(nothing_to_read(peer.get()));
}

TEST_F(SceneSink, LatestFrameWinsWhileTheWorkerIsBusy) {
    scene_sink_start(*sink);
    ASSERT_TRUE(wait_until([&] { return slot_tokens() == 3; }));  // worker idle
    {
        std::lock_guard block_worker(sender.mutex);
        scene_sink_push(*sink, frame(1), 0);
        ASSERT_TRUE(wait_until([&] { return !frame_pending(); }));  // worker took frame 1
        scene_sink_push(*sink, frame(2), 0);
        scene_sink_push(*sink, frame(3), 0);  // replaces 2, which is never sent
        EXPECT_EQ(slot_tokens(), 0);
        // A push would now wait for the send; a try replaces 3 at once.
        scene_sink_try_push(*sink, frame(4), 0);
    }
    EXPECT_EQ(next_time(), 1u);
    EXPECT_EQ(next_time(), 4u);
    scene_sink_stop(*sink);
    EXPECT_TRUE(nothing_to_read(peer.get()));
}

TEST_F(SceneSink, StopWaitsForTheFrameBeingSent) {
    scene_sink_start(*sink);
    std::thread stopper;
    {
        std::lock_guard block_worker(sender.mutex);
        scene_sink_push(*sink, frame(8), 0);
        ASSERT_TRUE(wait_until([&] { return !frame_pending(); }));
        stopper = std::thread([&] { scene_sink_stop(*sink); });
        ASSERT_TRUE(wait_until([&] { return !sink->run_thread; }));
    }
    stopper.join();
    EXPECT_EQ(sink->state, SINK_STATE_STOPPED);
    EXPECT_EQ(next_time(), 8u);
}

TEST_F(SceneSink, StopReleasesAProducerBlockedInPush) {
    scene_sink_start(*sink);
    ASSERT_TRUE(wait_until([&] { return slot_tokens() == 3; }));
    std::atomic<bool> producer_returned{false};
    std::thread producer, stopper;
    {
        std::lock_guard block_worker(sender.mutex);
        scene_sink_push(*sink, frame(1), 0);
        ASSERT_TRUE(wait_until([&] { return !frame_pending(); }));
        scene_sink_push(*sink, frame(2), 0);
        scene_sink_push(*sink, frame(3), 0);
        producer = std::thread([&] {
            scene_sink_push(*sink, frame(4), 0);
            producer_returned = true;
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        ASSERT_FALSE(producer_returned);
        stopper = std::thread([&] { scene_sink_stop(*sink); });
        // The worker is still stuck in its send, so only stop can let the
        // producer go.
        EXPECT_TRUE(wait_until([&] { return producer_returned.load(); }));
    }
    producer.join();
    stopper.join();
    EXPECT_EQ(sink->state, SINK_STATE_STOPPED);
}

// A small frame is copied and encoded by the worker, a large one encoded by
// the push: all arrive as serializeFrame writes them, class filter included,
// whatever the hand-off held before (more objects, fewer, a cut-off copy).
TEST_F(SceneSink, SmallAndLargeFramesArriveAsSerialized) {
    RadarScene::Frame large = frame(5);
    large.status = RadarScene::RadarStatus{true, false, {{"blocked", 3, false}}};
    large.orientation = RadarScene::RadarOrientation{1.5, 0.25};
    large.param_changed = "range";
    for (int i = 0; i < 4000; ++i) {
        RadarScene::FrameObject o;
        o.id = i;
        o.set_classifications({{i % 2 ? 3 : 4, 0.5}});
        o.set_polygon(std::vector<std::array<double, 2>>(40, {1.5, -2.5}));
        large.objects.push_back(o);
    }
    RadarScene::Frame small = large;
    small.time = 4;
    small.objects.resize(10);
    RadarScene::Frame fewer = small;
    fewer.objects.resize(3);
    fewer.objects[0].id = 4000;  // differs from the objects whose storage it reuses
    fewer.status.reset();
    fewer.param_changed.reset();
    RadarScene::SerializeFrameOptions options;
    options.filtered_classes = 1u << 3;
    scene_sink_start(*sink);
    for (const RadarScene::Frame* f : {&small, &fewer, &large, &small}) {
        scene_sink_push(*sink, *f, options.filtered_classes);
        std::string expected, payload;
        RadarScene::serializeFrame(expected, *f, options);
        ASSERT_TRUE(read_record(peer.get(), payload));
        EXPECT_EQ(payload, expected) << f->time;
    }
    scene_sink_stop(*sink);
}

// Subscribers that all ask for the same get the encoding's own bytes: a
// large frame pushed while they are written is encoded elsewhere.
TEST_F(SceneSink, AFramePushedDuringAWriteLeavesTheWrittenSceneAlone) {
    RadarScene::Frame first = frame(1);
    for (int i = 0; i < 4000; ++i) {
        RadarScene::FrameObject o;
        o.id = i;
        o.set_polygon(std::vector<std::array<double, 2>>(40, {1.5, -2.5}));
        first.objects.push_back(o);
    }
    RadarScene::Frame second = first;
    second.time = 2;
    second.objects[0].id = 7;
    scene_sink_start(*sink);
    scene_sink_push(*sink, first, 0);
    // The scene is larger than the socket's buffer: its write waits for us.
    ASSERT_TRUE(wait_until([&] {
        int queued = 0;
        return ioctl(peer.get(), FIONREAD, &queued) == 0 && queued > 0;
    }));
    scene_sink_try_push(*sink, second, 0);
    for (const RadarScene::Frame* f : {&first, &second}) {
        std::string expected, payload;
        RadarScene::serializeFrame(expected, *f, {});
        ASSERT_TRUE(read_record(peer.get(), payload));
        EXPECT_EQ(payload, expected) << f->time;
    }
    scene_sink_stop(*sink);
}

// An object whose classification flag is set over an empty list: raw
// subscribers get serializeFrame's raw bytes, small frame or large.
TEST_F(SceneSink, RawSubscribersGetObjectsFlaggedWithoutClassifications) {
    session_set_option5(*sender.session_list.front(), true);
    RadarScene::Frame large = frame(1);
    for (int i = 0; i < 4000; ++i) {
        RadarScene::FrameObject o;
        o.id = i;
        o.set_classifications({{3, 0.5}});
        o.set_polygon(std::vector<std::array<double, 2>>(40, {1.5, -2.5}));
        large.objects.push_back(o);
    }
    large.objects[1].classifications.clear();
    RadarScene::Frame small = large;
    small.objects.resize(2);
    RadarScene::SerializeFrameOptions options;
    options.raw = true;
    options.filtered_classes = 1u << 3;
    scene_sink_start(*sink);
    for (const RadarScene::Frame* f : {&small, &large}) {
        scene_sink_push(*sink, *f, options.filtered_classes);
        std::string expected, payload;
        RadarScene::serializeFrame(expected, *f, options);
        ASSERT_TRUE(read_record(peer.get(), payload));
        EXPECT_EQ(payload, expected) << f->objects.size();
    }
    scene_sink_stop(*sink);
}
