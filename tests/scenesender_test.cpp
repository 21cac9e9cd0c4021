#include "scenesender/scenesender.h"
#include "support/testutil.h"

#include <radarscene/scene.pb.h>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
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

// The scene of `frame` with every part, as the sink would hand it over.
void send(scene_sender_t& sender, const RadarScene::Frame& frame) {
    scene_encoding_t encoding;
    scene_encoding_fill(encoding, frame, 0, ~0u);
    scene_sender_send(sender, encoding, {});
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

    scene_encoding_t encoding;
    scene_encoding_fill(encoding, boxed_frame(1), 0, plain_parts);
    scene_sender_send(sender, encoding, {});
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

TEST_F(SceneSender, SlowReaderIsDroppedAtItsFirstLateRecord) {
    StderrCapture log;
    unique_fd slow = subscribe(1);
    unique_fd fast = subscribe(2);
    session_set_pid(*sender.session_list.front(), 0x7fffffff);  // no such process
    // Draining 64 KiB now and then never lets a single write wait a second,
    // but a 1 MB record takes far longer than a second to get through.
    std::atomic<bool> reading{true};
    std::thread slow_reader([&] {
        std::vector<char> chunk(64 * 1024);
        while (reading) {
            if (read(slow.get(), chunk.data(), chunk.size()) <= 0) {
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
        }
    });
    RadarScene::Frame big;
    RadarScene::FrameObject o;
    o.set_covariance(std::vector<double>(250'000, 0.25));
    big.objects.push_back(o);

    std::string payload;
    for (int sent = 0; sent < 4 && reported.empty(); ++sent) {
        std::thread fast_reader([&] { EXPECT_TRUE(read_record(fast.get(), payload)); });
        send(sender, big);
        fast_reader.join();
    }
    reading = false;
    shutdown(slow.get(), SHUT_RDWR);
    slow_reader.join();
    EXPECT_EQ(reported, std::vector<int>{1});
    EXPECT_TRUE(scene_sender_remove_session(sender, 1));
    EXPECT_EQ(sender.ended.front().end, SESSION_END_DEADLINE);
    EXPECT_EQ(log.count("<4>Broken session: 1 (pid: 2147483647, comm: (unknown)): " +
                        std::string(strerror(EAGAIN)) + "\n"),
              1);
}

TEST_F(SceneSender, StalledSessionsTimeOutTogetherWithoutHoldingTheList) {
    std::vector<unique_fd> stalled;
    for (int id = 0; id < 8; ++id) {
        stalled.push_back(subscribe(id));
    }
    unique_fd good = subscribe(8);
    RadarScene::Frame big;
    RadarScene::FrameObject o;
    o.set_covariance(std::vector<double>(250'000, 0.25));
    big.objects.push_back(o);

    std::string payload;
    std::thread reader([&] { EXPECT_TRUE(read_record(good.get(), payload)); });
    auto started = std::chrono::steady_clock::now();
    std::thread sending_thread([&] { send(sender, big); });
    auto sending = [&] {
        std::lock_guard lock(sender.mutex);
        return sender.sending;
    };
    ASSERT_TRUE(wait_until(sending));
    // Subscribing and unsubscribing go ahead while the send waits.
    EXPECT_TRUE(scene_sender_remove_session(sender, 0));
    unique_fd late = subscribe(9);
    EXPECT_TRUE(sending());
    sending_thread.join();
    auto took = std::chrono::steady_clock::now() - started;
    reader.join();

    EXPECT_LT(took, std::chrono::seconds(3));  // one deadline, not one per session
    EXPECT_EQ(reported, (std::vector<int>{1, 2, 3, 4, 5, 6, 7}));
    EXPECT_GT(payload.size(), 1'000'000u);  // the good reader got its whole record
    EXPECT_TRUE(nothing_to_read(late.get()));
}
