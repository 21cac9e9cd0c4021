#include "channelhandler/channelhandler.h"
#include "support/testutil.h"

#include <radarscene/scene.pb.h>

#include <gtest/gtest.h>
#include <unistd.h>

#include <vector>

namespace {

class ChannelHandler : public ::testing::Test {
protected:
    ChannelHandler() : handler(channel_handler_create()) {
        channel_handler_create_channel(*handler, 0);
        channel_handler_create_channel(*handler, 3);
    }

    int subscribe(int channel, unique_fd* fd_out = nullptr, subscription_options_t options = {}) {
        unique_fd fd(-1);
        int id = -1;
        int r = channel_handler_add_session(*handler, channel, static_cast<unsigned>(getpid()),
                                            options, fd, id);
        if (r == 0 && fd_out) {
            *fd_out = std::move(fd);
        }
        return r == 0 ? id : r;
    }

    uint32_t queued_broken() {
        std::lock_guard lock(handler->broken_sessions_mutex);
        return handler->broken_sessions.count;
    }

    std::unique_ptr<channel_handler_t> handler;
};

}  // namespace

TEST_F(ChannelHandler, InvalidChannelsAreRefused) {
    StderrCapture log;
    EXPECT_EQ(subscribe(16), -3);
    EXPECT_EQ(subscribe(-1), -3);
    EXPECT_EQ(subscribe(1), -3);
    EXPECT_EQ(log.count("<3>Channel id 16 is not valid\n"), 1);
    EXPECT_EQ(log.count("<3>Channel id -1 is not valid\n"), 1);
    EXPECT_EQ(subscribe(0), 0);  // refusals consumed no id
}

TEST_F(ChannelHandler, SessionLimitAndIdsThatAreNeverReused) {
    StderrCapture log;
    std::vector<unique_fd> fds(MAX_ACTIVE_SESSION_IDS);
    for (int i = 0; i < MAX_ACTIVE_SESSION_IDS; ++i) {
        ASSERT_EQ(subscribe(i % 2 ? 0 : 3, &fds[i]), i);
    }
    EXPECT_EQ(subscribe(0), -4);
    EXPECT_EQ(log.count("<3>Can't add session since maximum number of sessions is reached\n"), 1);
    EXPECT_EQ(channel_handler_remove_session(*handler, 5), 0);
    EXPECT_EQ(handler->n_sessions, MAX_ACTIVE_SESSION_IDS - 1);
    EXPECT_EQ(subscribe(0), MAX_ACTIVE_SESSION_IDS);
}

TEST_F(ChannelHandler, PipelineLivesExactlyWhileTheChannelHasSessions) {
    channel_t& channel = *handler->channels[0];
    EXPECT_FALSE(has_pipeline(channel));
    int a = subscribe(0), b = subscribe(0);
    ASSERT_TRUE(has_pipeline(channel));
    channel_handler_remove_session(*handler, a);
    EXPECT_TRUE(has_pipeline(channel));
    channel_handler_remove_session(*handler, b);
    EXPECT_FALSE(has_pipeline(channel));
    unique_fd again;
    subscribe(0, &again);
    ASSERT_TRUE(has_pipeline(channel));
    EXPECT_EQ(channel.scene_pipeline->scene_sink->state, SINK_STATE_RUNNING);
    channel_handler_push(*handler, 0, RadarScene::Frame{}, 0);
    std::string payload;
    EXPECT_TRUE(read_record(again.get(), payload));
    EXPECT_FALSE(has_pipeline(*handler->channels[3]));
}

TEST_F(ChannelHandler, PushReachesSubscribersOfThatChannelOnly) {
    unique_fd on0, on3;
    subscribe(0, &on0);
    subscribe(3, &on3);
    RadarScene::Frame frame;
    frame.time = 21;
    channel_handler_push(*handler, 0, frame, 0);
    channel_handler_push(*handler, 1, frame, 0);  // never created: ignored
    std::string payload;
    RadarScene::Scene scene;
    ASSERT_TRUE(read_record(on0.get(), payload));
    ASSERT_TRUE(scene.ParseFromString(payload));
    EXPECT_EQ(scene.time(), 21u);
    EXPECT_TRUE(nothing_to_read(on3.get()));
}

TEST_F(ChannelHandler, SubscribersThatVanishTogetherAreRecovered) {
    std::vector<unique_fd> fds(MAX_ACTIVE_SESSION_IDS);
    for (int i = 0; i < MAX_ACTIVE_SESSION_IDS; ++i) {
        ASSERT_EQ(subscribe(0, &fds[i]), i);
    }
    fds.clear();
    channel_handler_push(*handler, 0, RadarScene::Frame{}, 0);
    ASSERT_TRUE(wait_until([&] { return queued_broken() == 32; }));
    {
        StderrCapture log;
        EXPECT_EQ(channel_handler_clear_broken_sessions(*handler), -1);
        EXPECT_EQ(
            log.count("<3>n_sessions is out of range: 32. Not able to clear broken sessions\n"), 1);
    }

    // Unsubscribing takes a session's id out of the queue with it, so a new
    // subscriber that breaks still finds room.
    channel_handler_remove_session(*handler, 3);
    channel_handler_remove_session(*handler, 4);
    EXPECT_EQ(queued_broken(), 30u);
    unique_fd late;
    ASSERT_EQ(subscribe(0, &late), MAX_ACTIVE_SESSION_IDS);
    late.reset();
    channel_handler_push(*handler, 0, RadarScene::Frame{}, 0);
    ASSERT_TRUE(wait_until([&] { return queued_broken() == 31; }));

    EXPECT_EQ(channel_handler_drain_broken_sessions(*handler), 31);
    EXPECT_EQ(handler->n_sessions, 0);
    EXPECT_FALSE(has_pipeline(*handler->channels[0]));

    // Below the limit the clear step itself removes them.
    unique_fd alive, closed;
    subscribe(0, &alive);
    subscribe(0, &closed);
    closed.reset();
    channel_handler_push(*handler, 0, RadarScene::Frame{}, 0);
    ASSERT_TRUE(wait_until([&] { return queued_broken() == 1; }));
    EXPECT_EQ(channel_handler_clear_broken_sessions(*handler), 1);
    EXPECT_EQ(handler->n_sessions, 1);
    EXPECT_EQ(queued_broken(), 0u);
}
