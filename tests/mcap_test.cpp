#include "mcap.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace {

// 40 messages, alternating between two channels, in chunks of ~300 bytes.
std::string sample(mcap_compression_t compression) {
    char path[] = "/tmp/radarscene-mcap-XXXXXX";
    close(mkstemp(path));
    {
        McapWriter writer(path, "test", compression, 300);
        uint16_t schema = writer.addSchema("RadarScene.Scene", "protobuf", "descriptor");
        uint16_t a = writer.addChannel(schema, "/radar/0/scene", "protobuf", {{"k", "v"}});
        uint16_t b = writer.addChannel(schema, "/radar/1/scene", "protobuf", {});
        for (uint32_t i = 0; i < 40; ++i) {
            std::string data = "scene " + std::to_string(i) + std::string(i, 'x');
            writer.write({i % 2 ? b : a, i / 2, 1000 + i, 7 * i, data});
        }
        writer.finish();
    }
    std::ifstream in(path, std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(in)), {});
    unlink(path);
    return bytes;
}

struct read_t {
    std::vector<std::string> data;
    mcap_read_report_t report;
};

read_t read(const std::string& bytes, std::set<uint16_t> channels = {}, uint64_t start = 0,
            uint64_t end = UINT64_MAX) {
    char path[] = "/tmp/radarscene-mcap-XXXXXX";
    int fd = mkstemp(path);
    EXPECT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    unlink(path);
    read_t out;
    try {
        McapReader reader(fd);
        reader.readMessages(channels, start, end,
                            [&](const mcap_message_t& m) { out.data.emplace_back(m.data); });
        out.report = reader.report();
    } catch (...) {
        close(fd);
        throw;
    }
    close(fd);
    return out;
}

// Offsets of the chunk records, found by walking the data section.
std::vector<size_t> chunks(const std::string& bytes) {
    std::vector<size_t> found;
    for (size_t at = 8; at + 9 <= bytes.size() && bytes[at] != 0x0f;) {
        uint64_t length;
        memcpy(&length, bytes.data() + at + 1, 8);
        if (bytes[at] == 0x06) {
            found.push_back(at);
        }
        at += 9 + length;
    }
    return found;
}

}  // namespace

TEST(Mcap, MessagesComeBackThroughTheIndexWhateverTheCompression) {
    for (auto compression :
         {mcap_compression_t::none, mcap_compression_t::zstd, mcap_compression_t::lz4}) {
        std::string bytes = sample(compression);
        read_t all = read(bytes);
        ASSERT_EQ(all.data.size(), 40u);
        EXPECT_EQ(all.data[39], "scene 39" + std::string(39, 'x'));
        EXPECT_TRUE(all.report.indexed);
        EXPECT_GT(all.report.chunks, 3u);
        read_t one = read(bytes, {2});
        EXPECT_EQ(one.data.size(), 20u);
        EXPECT_EQ(one.data[0], "scene 1x");
        EXPECT_EQ(one.report.other_messages, 20u);
        EXPECT_EQ(read(bytes, {}, 1010, 1019).data.size(), 10u);
    }
}

TEST(Mcap, DamagedFilesAreReadAsFarAsTheyAreWhole) {
    std::string bytes = sample(mcap_compression_t::none);
    std::vector<size_t> at = chunks(bytes);
    ASSERT_GT(at.size(), 3u);
    size_t in_first_two = read(bytes.substr(0, at[2])).data.size();

    // Cut off inside the third chunk: the whole chunks before it remain.
    read_t cut = read(bytes.substr(0, at[2] + 40));
    EXPECT_FALSE(cut.report.indexed);
    EXPECT_EQ(cut.report.cut_at, at[2]);
    EXPECT_EQ(cut.data.size(), in_first_two);
    std::vector<std::string> whole = read(bytes).data;
    whole.resize(in_first_two);
    EXPECT_EQ(cut.data, whole);

    // A flipped byte in a chunk, a wrong CRC in its header, or a claim of 4
    // GiB more uncompressed bytes: that chunk is skipped and counted, the
    // others are read.
    for (size_t offset : {at[1] + 60, at[1] + 9 + 24, at[1] + 9 + 16 + 4}) {
        std::string damaged = bytes;
        damaged[offset] ^= 0x21;
        read_t r = read(damaged);
        EXPECT_EQ(r.report.bad_chunks, 1u);
        EXPECT_EQ(r.data.size(), 40 - (in_first_two - read(bytes.substr(0, at[1])).data.size()));
    }

    // A record that claims 4 GiB past the end of a file without an index.
    std::string claim = bytes.substr(0, at[3]);
    claim[at[2] + 1 + 4] = 1;
    read_t r = read(claim);
    EXPECT_EQ(r.report.cut_at, at[2]);

    EXPECT_THROW(read("not an MCAP file at all"), std::runtime_error);
}
