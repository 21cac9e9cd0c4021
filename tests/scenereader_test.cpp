#include "common/unique_fd.h"

#include <radarscene/RadarScene.h>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

namespace {

// A socket pair whose writing end the test feeds by hand.
class SceneReader : public ::testing::Test {
protected:
    SceneReader() {
        int fds[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        reader.reset(fds[0]);
        writer.reset(fds[1]);
    }

    void send(const std::string& bytes) {
        ASSERT_EQ(write(writer.get(), bytes.data(), bytes.size()),
                  static_cast<ssize_t>(bytes.size()));
    }
    static std::string length_word(uint32_t length) {
        uint32_t word = htonl(length);
        return std::string(reinterpret_cast<char*>(&word), sizeof(word));
    }
    int next(size_t limit = 64u << 20) {
        return RadarScene::readSceneRecord(reader.get(), payload, limit);
    }

    unique_fd reader, writer;
    std::string payload = "stale";
};

}  // namespace

TEST_F(SceneReader, LengthWordCountsItself) {
    send(length_word(4) + length_word(7) + "abc");
    EXPECT_EQ(next(), 1);
    EXPECT_EQ(payload, "");
    EXPECT_EQ(next(), 1);
    EXPECT_EQ(payload, "abc");
    writer.reset();
    EXPECT_EQ(next(), 0);
}

TEST_F(SceneReader, LengthsBelowFourAreMalformed) {
    send(length_word(0));
    EXPECT_EQ(next(), -EBADMSG);
    send(length_word(3));
    EXPECT_EQ(next(), -EBADMSG);
}

TEST_F(SceneReader, RecordSplitAcrossManyWrites) {
    std::string record = length_word(4 + 1000) + std::string(1000, 'x');
    std::thread trickle([&] {
        for (char byte : record) {
            send(std::string(1, byte));
        }
    });
    EXPECT_EQ(next(), 1);
    trickle.join();
    EXPECT_EQ(payload, std::string(1000, 'x'));
}

TEST_F(SceneReader, StreamEndingInsideARecord) {
    send(length_word(10).substr(0, 2));
    writer.reset();
    EXPECT_EQ(next(), -EPROTO);

    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    reader.reset(fds[0]);
    writer.reset(fds[1]);
    send(length_word(10) + "abc");
    writer.reset();
    EXPECT_EQ(next(), -EPROTO);
}

TEST_F(SceneReader, PayloadOverTheLimitIsRefusedBeforeAllocating) {
    send(length_word(4 + 101));
    EXPECT_EQ(next(100), -EMSGSIZE);
    EXPECT_EQ(payload, "stale");
    send(length_word(0xffffffffu));
    EXPECT_EQ(next(), -EMSGSIZE);
}

TEST_F(SceneReader, ReusedPayloadNeverGrowsPastTheLimit) {
    std::thread feed([&] {
        for (size_t size : {40'000, 60'000}) {
            send(length_word(static_cast<uint32_t>(4 + size)) + std::string(size, 'x'));
        }
    });
    EXPECT_EQ(next(60'000), 1);
    EXPECT_EQ(next(60'000), 1);
    feed.join();
    EXPECT_EQ(payload.size(), 60'000u);
    EXPECT_LE(payload.capacity(), 60'000u);
}
