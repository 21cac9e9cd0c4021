// A subscriber's stream reader and gap counter, fed by hand through a socket pair.
#include "scenestream/scenestream.h"
#include "common/unique_fd.h"
#include "scenegaps/scenegaps.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

std::string record(const std::string& payload, uint32_t length = 0) {
    uint32_t word = htonl(length ? length : static_cast<uint32_t>(payload.size() + 4));
    return std::string(reinterpret_cast<char*>(&word), 4) + payload;
}

// A stream whose writing end the test feeds by hand.
struct Feed {
    explicit Feed(size_t limit = 100'000) {
        int fds[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
        scene_stream_open(stream, fds[0], limit);
        writer.reset(fds[1]);
    }

    void send(const std::string& bytes) {
        ASSERT_EQ(write(writer.get(), bytes.data(), bytes.size()),
                  static_cast<ssize_t>(bytes.size()));
    }

    // Every record delivered until the stream has nothing more, polling the socket as an
    // event loop would.
    std::vector<std::string> drain() {
        std::vector<std::string> out;
        for (;;) {
            pollfd p{stream.fd.get(), POLLIN, 0};
            if (stream.fd && poll(&p, 1, 0) > 0) {
                scene_stream_readable(stream);
            }
            if ((last = scene_stream_next(stream, payload)) != SCENE_STREAM_RECORD) {
                return out;
            }
            out.push_back(payload);
        }
    }

    scene_stream_t stream;
    std::string payload;  // kept, as a reader's buffer is
    unique_fd writer;
    scene_stream_result_t last = SCENE_STREAM_AGAIN;
};

}  // namespace

TEST(SceneStream, RecordsArriveWholeAndInOrderHoweverTheBytesAreSplit) {
    std::vector<std::string> payloads = {"",
                                         "a",
                                         std::string(100, 'b'),
                                         std::string(20'000, 'c'),
                                         std::string(30'000, 'g'),
                                         std::string(25'000, 'h'),
                                         "d",
                                         std::string(70'000, 'e'),
                                         "f"};
    std::string bytes;
    for (const std::string& p : payloads) {
        bytes += record(p);
    }
    // Pieces of every size up to 2 KB, and pieces that hold several records.
    for (size_t large : {0, 60'000}) {
        Feed f;
        std::vector<std::string> got;
        for (size_t at = 0, piece = 1; at < bytes.size();
             at += piece, piece = large ? large : piece * 3 % 1999 + 1) {
            f.send(bytes.substr(at, piece));
            for (std::string& p : f.drain()) {
                got.push_back(std::move(p));
            }
            ASSERT_EQ(f.last, SCENE_STREAM_AGAIN);
        }
        EXPECT_EQ(got, payloads);
        EXPECT_EQ(f.stream.bytes, bytes.size());
    }

    // After large records that ended with a read, the next read takes the next record's payload
    // ahead, and with it the records behind it.
    Feed f;
    std::string large(20'000, 'c');
    std::vector<std::string> got;
    for (const std::string& bytes :
         {record(large), record(large),
          record("d") + record("xyz") + record(std::string(30'000, 'g'))}) {
        f.send(bytes);
        for (std::string& p : f.drain()) {
            got.push_back(std::move(p));
        }
    }
    EXPECT_EQ(got, (std::vector<std::string>{large, large, "d", "xyz", std::string(30'000, 'g')}));
}

TEST(SceneStream, BadLengthWordsEndTheStreamWithAReason) {
    Feed f;
    f.send(record("ok") + record("", 3));
    EXPECT_EQ(f.drain(), std::vector<std::string>{"ok"});
    EXPECT_EQ(f.last, SCENE_STREAM_BROKEN);
    EXPECT_EQ(f.stream.reason, "a record's length word is 3, below 4");
    EXPECT_FALSE(f.stream.fd);

    Feed small(10);
    small.send(record(std::string(10, 'x')) + record(std::string(11, 'y')));
    EXPECT_EQ(small.drain().size(), 1u);
    EXPECT_EQ(small.last, SCENE_STREAM_BROKEN);
    EXPECT_EQ(small.stream.reason, "a record of 11 bytes, over the limit of 10");
    EXPECT_LE(small.stream.record.capacity(), 16u);
}

TEST(SceneStream, ARecordCutByThePeerIsNeverDelivered) {
    for (size_t size : {10u, 30'000u}) {
        Feed fresh;
        std::string cut = record(std::string(size, 'z'));
        fresh.send(record("whole") + cut.substr(0, cut.size() - 1));
        fresh.writer.reset();
        EXPECT_EQ(fresh.drain(), std::vector<std::string>{"whole"});
        EXPECT_EQ(fresh.last, SCENE_STREAM_END);
        EXPECT_TRUE(fresh.stream.cut);
        EXPECT_EQ(fresh.stream.bytes, 9u);
    }
}

TEST(SceneGaps, GapsCountMissingScenesButNotANewSubscription) {
    scene_gaps_t gaps;
    for (uint64_t time : {100, 200, 300, 600, 700, 0}) {
        scene_gaps_add(gaps, time);
    }
    EXPECT_EQ(gaps.missing, 2u);
    scene_gaps_restart(gaps);
    scene_gaps_add(gaps, 90'000);
    scene_gaps_add(gaps, 90'100);
    EXPECT_EQ(gaps.missing, 2u);

    // The time is found after fields of every wire type, and absent or cut it is 0.
    std::string scene = {0x1a, 0x02,
                         0x08, 0x01,  // objects: a length-delimited field
                         0x15, 0,
                         0,    0,
                         0,  // a fixed32
                         0x11, 0,
                         0,    0,
                         0,    0,
                         0,    0,
                         0,           // a fixed64
                         0x10, 0x05,  // real_time
                         0x08, static_cast<char>(0xac),
                         0x02};  // time 300
    EXPECT_EQ(scene_time(scene), 300u);
    EXPECT_EQ(scene_time(scene.substr(0, scene.size() - 1)), 0u);
    EXPECT_EQ(scene_time(scene.substr(0, 4)), 0u);
}
