#include "scenesender/scenesender.h"
#include "scenesink/scenesink.h"
#include "support/testutil.h"

#include <radarscene/scene.pb.h>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <thread>
#include <vector>

namespace {

std::unique_ptr<session_t> make_session(int id) {
    auto session = std::make_unique<session_t>();
    session_set_id(*session, id);
    session_set_pid(*session, static_cast<unsigned>(getpid()));
    session_set_state(*session, SESSION_STATE_ACTIVE);
    return session;
}

RadarScene::Frame boxed_frame(uint64_t time, size_t objects = 1) {
    RadarScene::Frame frame;
    frame.time = time;
    for (size_t i = 0; i < objects; ++i) {
        RadarScene::FrameObject o;
        o.id = static_cast<int32_t>(i);
        o.set_bounding_box({1, 2, 3, 4});
        o.set_covariance(std::vector<double>(16, 0.5));
        frame.objects.push_back(o);
    }
    return frame;
}

// The scene of `frame` with every part, as the sink would hand it over,
// written out as the sending thread would.
void send(scene_sender_t& sender, const RadarScene::Frame& frame) {
    auto encoding = std::make_shared<scene_encoding_t>();
    scene_encoding_fill(*encoding, frame, 0, ~0u);
    scene_sender_send(sender, encoding, ++sender.frames_pushed);
    scene_sender_finish(sender);
}

class SceneSender : public ::testing::Test {
protected:
    SceneSender() {
        scene_sender_set_error_callback(sender, [this](int id) { reported.push_back(id); });
    }

    unique_fd subscribe(int id) {
        auto session = make_session(id);
        unique_fd peer;
        EXPECT_EQ(scene_sender_add_session(sender, session, peer), 0);
        EXPECT_FALSE(session);
        return peer;
    }

    scene_sender_t sender;
    std::vector<int> reported;
};

}  // namespace

TEST_F(SceneSender, WritesOneLengthPrefixedRecordPerSession) {
    unique_fd peer = subscribe(0);
    RadarScene::Frame frame;  // time 0: payload is the two bytes 08 00
    send(sender, frame);
    char bytes[16];
    ASSERT_EQ(read(peer.get(), bytes, sizeof(bytes)), 6);
    EXPECT_EQ(std::string(bytes, 6), std::string("\x00\x00\x00\x06\x08\x00", 6));
}

// A push encodes the parts its sessions need; a session whose parts a scene
// lacks subscribed after that push, and waits for the next.
TEST_F(SceneSender, SessionsTheEncodingDoesNotServeWaitForTheNextScene) {
    unique_fd plain = subscribe(1);
    unsigned plain_parts = sender.wanted_parts;
    auto session = make_session(2);
    session_set_option1(*session, true);  // bounding boxes
    unique_fd boxed;
    ASSERT_EQ(scene_sender_add_session(sender, session, boxed), 0);
    EXPECT_EQ(sender.wanted_parts, plain_parts | 1u << OBJECT_PART_BOUNDING_BOX);

    auto encoding = std::make_shared<scene_encoding_t>();
    scene_encoding_fill(*encoding, boxed_frame(1), 0, plain_parts);
    scene_sender_send(sender, encoding, ++sender.frames_pushed);
    std::string payload;
    EXPECT_TRUE(read_record(plain.get(), payload));
    EXPECT_TRUE(nothing_to_read(boxed.get()));
    EXPECT_TRUE(scene_sender_remove_session(sender, 2));
    EXPECT_EQ(sender.wanted_parts, plain_parts);
}

TEST_F(SceneSender, ClosedPeerIsReportedOnceAndOthersStillReceive) {
    StderrCapture log;
    unique_fd closed = subscribe(4);
    unique_fd alive = subscribe(5);
    unique_fd also_closed = subscribe(6);
    closed.reset();
    also_closed.reset();
    send(sender, boxed_frame(1));
    send(sender, boxed_frame(2));

    EXPECT_EQ(reported, (std::vector<int>{4, 6}));
    std::string comm = session_get_comm(*sender.session_list.front());
    EXPECT_EQ(log.count("<6>Session closed: 4 (pid: " + std::to_string(getpid()) +
                        ", comm: " + comm + ")\n"),
              1);
    EXPECT_EQ(log.count("<6>Cleaned up 2 broken sessions\n"), 1);
    EXPECT_EQ(session_get_state(*sender.session_list.front()), SESSION_STATE_CLOSED);
    EXPECT_EQ(scene_sender_get_num_sessions(sender), 3);  // removal is the handler's job

    std::string payload;
    EXPECT_TRUE(read_record(alive.get(), payload));
    EXPECT_TRUE(read_record(alive.get(), payload));
    EXPECT_TRUE(scene_sender_remove_session(sender, 4));
    EXPECT_FALSE(scene_sender_remove_session(sender, 4));
    EXPECT_EQ(sender.ended.front().end, SESSION_END_ERROR);
}

// A reader that keeps taking bytes keeps its session however long a record
// takes; one that stops is broken once its socket has taken nothing for the
// deadline.
TEST_F(SceneSender, OnlyARecordWithoutProgressForItsDeadlineBreaksTheSession) {
    StderrCapture log;
    unique_fd slow = subscribe(1);
    session_set_pid(*sender.session_list.front(), 0x7fffffff);  // no such process
    RadarScene::Frame big;
    RadarScene::FrameObject o;
    o.set_covariance(std::vector<double>(250'000, 0.25));
    big.objects.push_back(o);
    std::string expected;
    RadarScene::serializeFrame(expected, big, {});
    // 64 KiB every 200 ms: the 1 MB record takes seconds, none without a read.
    std::atomic<size_t> taken{0};
    std::thread slow_reader([&] {
        std::vector<char> chunk(64 * 1024);
        while (taken < expected.size() + 4) {
            ssize_t n =
                read(slow.get(), chunk.data(), std::min(chunk.size(), expected.size() + 4 - taken));
            if (n <= 0) {
                break;
            }
            taken += static_cast<size_t>(n);
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
        }
    });
    send(sender, big);  // waits out the record
    slow_reader.join();
    EXPECT_EQ(taken, expected.size() + 4);
    EXPECT_TRUE(reported.empty());
    send(sender, big);  // now nobody reads
    EXPECT_EQ(reported, std::vector<int>{1});
    EXPECT_TRUE(scene_sender_remove_session(sender, 1));
    EXPECT_EQ(sender.ended.front().end, SESSION_END_DEADLINE);
    EXPECT_EQ(sender.ended.front().scenes_written, 1u);
    EXPECT_EQ(log.count("<4>Broken session: 1 (pid: 2147483647, comm: (unknown)): " +
                        std::string(strerror(EAGAIN)) + "\n"),
              1);
}

namespace {

// A frame whose scene takes 4 bytes per value: by default more than a
// socket buffer holds once it holds another.
RadarScene::Frame heavy_frame(uint64_t time, size_t values = 40'000) {
    RadarScene::Frame frame;
    frame.time = time;
    RadarScene::FrameObject o;
    o.set_covariance(std::vector<double>(values, 0.25));
    frame.objects.push_back(o);
    return frame;
}

uint64_t scene_time(const std::string& payload) {
    RadarScene::Scene scene;
    EXPECT_TRUE(scene.ParseFromString(payload));
    return scene.time();
}

session_stats_t stats_of(scene_sender_t& sender, int id) {
    std::lock_guard lock(sender.mutex);
    for (const auto& session : sender.session_list) {
        if (session->id == id) {
            return session_get_stats(*session);
        }
    }
    return {};
}

}  // namespace

TEST_F(SceneSender, StalledSessionsKeepTheirNewestFrameWhileTheOthersGetEveryOne) {
    sender.record_timeout = std::chrono::minutes(1);
    std::vector<unique_fd> stalled;
    for (int id = 0; id < 4; ++id) {
        stalled.push_back(subscribe(id));
    }
    unique_fd dead = subscribe(4);
    unique_fd healthy[2] = {subscribe(5), subscribe(6)};
    auto sink = scene_sink_create(&sender);
    scene_sink_start(*sink);
    constexpr uint64_t FRAMES = 24;
    std::string payload;
    for (uint64_t time = 1; time <= FRAMES; ++time) {
        scene_sink_push(*sink, heavy_frame(time), 0);
        for (unique_fd& fd : healthy) {
            ASSERT_TRUE(read_record(fd.get(), payload));
            EXPECT_EQ(scene_time(payload), time);
        }
    }
    // Now they read: whole records in push order, the newest frame last, and
    // what they missed counted as replaced.
    for (int id = 0; id < 4; ++id) {
        std::vector<uint64_t> times;
        while ((times.empty() || times.back() < FRAMES) &&
               read_record(stalled[id].get(), payload)) {
            times.push_back(scene_time(payload));
        }
        ASSERT_FALSE(times.empty());
        EXPECT_EQ(times.back(), FRAMES);
        EXPECT_LT(times.size(), FRAMES / 2);
        EXPECT_TRUE(std::adjacent_find(times.begin(), times.end(), std::greater_equal<>()) ==
                    times.end());
        EXPECT_TRUE(
            wait_until([&] { return stats_of(sender, id).scenes_written == times.size(); }));
        EXPECT_EQ(stats_of(sender, id).frames_replaced, FRAMES - times.size());
    }
    // The one that never reads breaks at its deadline; the others read on.
    {
        std::lock_guard lock(sender.mutex);
        sender.record_timeout = std::chrono::seconds(1);
    }
    uint64_t time = FRAMES;
    EXPECT_TRUE(wait_until(
        [&] {
            std::lock_guard lock(sender.mutex);
            return !reported.empty();
        },
        std::chrono::seconds(10),
        [&] {
            scene_sink_push(*sink, heavy_frame(++time), 0);
            for (unique_fd& fd : healthy) {
                ASSERT_TRUE(read_record(fd.get(), payload));
                EXPECT_EQ(scene_time(payload), time);
            }
        }));
    scene_sink_stop(*sink);
    // Those that read no more after draining follow it.
    EXPECT_EQ(reported.front(), 4);
    EXPECT_EQ(std::count_if(reported.begin(), reported.end(), [](int id) { return id > 4; }), 0);
    EXPECT_EQ(stats_of(sender, 4).end, SESSION_END_DEADLINE);
}

TEST_F(SceneSender, UnsubscribingDuringARecordEndsTheStreamAfterIt) {
    unique_fd peer = subscribe(1);
    auto encoding = std::make_shared<scene_encoding_t>();
    scene_encoding_fill(*encoding, heavy_frame(7, 250'000), 0, ~0u);
    scene_sender_send(sender, encoding, ++sender.frames_pushed);  // fills the socket and returns
    ASSERT_TRUE(scene_sender_remove_session(sender, 1));
    EXPECT_EQ(scene_sender_get_num_sessions(sender), 0);
    EXPECT_EQ(sender.closing.size(), 1u);
    std::thread finisher([&] { scene_sender_finish(sender); });
    std::string payload;
    EXPECT_TRUE(read_record(peer.get(), payload));
    EXPECT_EQ(scene_time(payload), 7u);
    char byte;
    EXPECT_EQ(read(peer.get(), &byte, 1), 0);  // the stream ends after the record
    finisher.join();
    ASSERT_EQ(sender.ended.size(), 1u);
    EXPECT_EQ(sender.ended.front().end, SESSION_END_UNSUBSCRIBED);
    EXPECT_EQ(sender.ended.front().scenes_written, 1u);
}
