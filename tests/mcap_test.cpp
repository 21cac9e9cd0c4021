// The tools' MCAP writer and reader against each other: every compression,
// chunks closed by size and by time, damaged files, chunks in any order and
// overlapping, and schemas and channels kept by what they cost.

#include "mcapreader.h"
#include "mcapwriter.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <numeric>
#include <stdexcept>

namespace {

std::string temp_path() {
    char path[] = "/tmp/radarscene-mcap-XXXXXX";
    close(mkstemp(path));
    return path;
}

std::string contents(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), {});
}

// 40 messages, alternating between two channels, in chunks of ~300 bytes.
std::string sample(mcap_compression_t compression) {
    std::string path = temp_path();
    {
        McapWriter writer(path, "test", {compression, 300});
        uint16_t schema = writer.addSchema("RadarScene.Scene", "protobuf", "descriptor");
        uint16_t a = writer.addChannel(schema, "/radar/0/scene", "protobuf", {{"k", "v"}});
        uint16_t b = writer.addChannel(schema, "/radar/1/scene", "protobuf", {});
        for (uint32_t i = 0; i < 40; ++i) {
            std::string data = "scene " + std::to_string(i) + std::string(i, 'x');
            writer.write({i % 2 ? b : a, i / 2, 1000 + i, 7 * i, data});
        }
        writer.finish();
    }
    std::string bytes = contents(path);
    unlink(path.c_str());
    return bytes;
}

struct read_t {
    std::vector<std::string> data;
    std::vector<uint64_t> times;
    mcap_read_report_t report;
};

read_t read_file(const std::string& path, uint64_t from = 0, uint64_t to = UINT64_MAX) {
    read_t out;
    McapReader reader(path);
    reader.window(from, to);
    mcap_message_t m;
    while (reader.next(m)) {
        out.data.emplace_back(m.data);
        out.times.push_back(m.log_time);
    }
    out.report = reader.report();
    return out;
}

read_t read(const std::string& bytes, uint64_t from = 0, uint64_t to = UINT64_MAX) {
    std::string path = temp_path();
    std::ofstream(path, std::ios::binary) << bytes;
    try {
        read_t out = read_file(path, from, to);
        unlink(path.c_str());
        return out;
    } catch (...) {
        unlink(path.c_str());
        throw;
    }
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

TEST(Mcap, MessagesComeBackInOrderWhateverTheCompression) {
    for (auto compression :
         {mcap_compression_t::none, mcap_compression_t::zstd, mcap_compression_t::lz4}) {
        std::string bytes = sample(compression);
        read_t all = read(bytes);
        ASSERT_EQ(all.data.size(), 40u);
        EXPECT_EQ(all.data[39], "scene 39" + std::string(39, 'x'));
        EXPECT_TRUE(all.report.finished);
        EXPECT_GT(all.report.chunks, 3u);
        EXPECT_EQ(all.report.bad_records, 0u);
        // The window counts from the first message's log time.
        read_t window = read(bytes, 10, 19);
        ASSERT_EQ(window.data.size(), 10u);
        EXPECT_EQ(window.data[0], "scene 10" + std::string(10, 'x'));
    }
}

TEST(Mcap, ChunksCloseOnceTheySpanTheChunkTime) {
    std::string path = temp_path();
    McapWriter writer(path, "test", {mcap_compression_t::zstd, 1u << 20, 100});
    uint16_t channel = writer.addChannel(0, "/t", "raw", {});
    for (uint64_t time = 0; time < 250; time += 10) {
        writer.write({channel, 0, time, 0, "m"});
    }
    // 0..90 and 100..190 are closed, 200..240 is open: not in the file yet.
    EXPECT_EQ(read_file(path).data.size(), 20u);
    writer.tick(299);
    EXPECT_EQ(read_file(path).data.size(), 20u);
    writer.tick(300);
    read_t closed = read_file(path);
    EXPECT_EQ(closed.data.size(), 25u);
    EXPECT_FALSE(closed.report.finished);
    writer.finish();
    EXPECT_EQ(chunks(contents(path)).size(), 3u);
    unlink(path.c_str());
}

TEST(Mcap, ChunksInAnyOrderAreMergedByTheTimesTheyHold) {
    std::string path = temp_path();
    {
        // Ten messages of 39 bytes fill a chunk of 390: the latest chunk is
        // written first, and the two after it overlap.
        McapWriter writer(path, "test", {mcap_compression_t::none, 390, UINT64_MAX});
        uint16_t channel = writer.addChannel(0, "/t", "raw", {});
        std::vector<uint64_t> times(10);
        std::iota(times.begin(), times.end(), 20);
        for (uint64_t odd = 0; odd < 2; ++odd) {
            for (uint64_t i = 0; i < 10; ++i) {
                times.push_back(2 * i + odd);
            }
        }
        for (uint64_t time : times) {
            writer.write({channel, 0, time, 0, "12345678"});
        }
    }
    read_t merged = read_file(path);
    unlink(path.c_str());
    EXPECT_EQ(merged.report.chunks, 3u);
    EXPECT_EQ(merged.report.out_of_order, 0u);
    std::vector<uint64_t> expected(30);
    std::iota(expected.begin(), expected.end(), 0);
    EXPECT_EQ(merged.times, expected);
}

TEST(Mcap, SchemasAndChannelsAreKeptByWhatTheyCost) {
    std::string path = temp_path();
    {
        McapWriter writer(path, "test", {});
        writer.addSchema("s", "protobuf", "");
        for (int i = 0; i < 20; ++i) {
            writer.addChannel(0, "/t", "raw", {{"big", std::string(1u << 20, 'x')}});
        }
        // About 2 MB in the file, but more than 16 MiB as map entries.
        std::map<std::string, std::string> keys;
        for (int i = 0; i < 200'000; ++i) {
            keys[std::to_string(i)] = "";
        }
        writer.addChannel(0, "/keys", "raw", keys);
    }
    // The schema's name claims more bytes than its record holds.
    std::string bytes = contents(path);
    size_t schema = 8 + 9 + 4 + 4 + 4;
    ASSERT_EQ(bytes[schema], 0x03);
    bytes.replace(schema + 9 + 2, 4, std::string("\xff\xff\xff\x00", 4));
    std::ofstream(path, std::ios::binary) << bytes;
    McapReader reader(path);
    unlink(path.c_str());
    EXPECT_EQ(reader.channels().size(), 15u);
    EXPECT_TRUE(reader.schemas().empty());
    EXPECT_EQ(reader.report().bad_records, 7u);
    EXPECT_EQ(reader.report().first_problem, "the schema at byte " + std::to_string(schema) +
                                                 " has fields that reach past its end");
}

TEST(Mcap, DamagedFilesAreReadAsFarAsTheyAreWhole) {
    std::string bytes = sample(mcap_compression_t::none);
    std::vector<size_t> at = chunks(bytes);
    ASSERT_GT(at.size(), 3u);
    size_t in_first_two = read(bytes.substr(0, at[2])).data.size();

    // Cut off inside the third chunk: the whole chunks before it remain.
    read_t cut = read(bytes.substr(0, at[2] + 40));
    EXPECT_FALSE(cut.report.finished);
    EXPECT_EQ(cut.report.cut_at, at[2]);
    EXPECT_EQ(cut.data.size(), in_first_two);
    std::vector<std::string> whole = read(bytes).data;
    whole.resize(in_first_two);
    EXPECT_EQ(cut.data, whole);

    // A flipped byte in a chunk, a wrong CRC in its header, or a claim of 4
    // GiB more uncompressed bytes: that chunk is skipped and counted, the
    // others are read.
    size_t in_second = in_first_two - read(bytes.substr(0, at[1])).data.size();
    for (size_t offset : {at[1] + 60, at[1] + 9 + 24, at[1] + 9 + 16 + 4}) {
        std::string damaged = bytes;
        damaged[offset] ^= 0x21;
        read_t r = read(damaged);
        EXPECT_EQ(r.report.bad_records, 1u);
        EXPECT_NE(r.report.first_problem.find("chunk at byte " + std::to_string(at[1])),
                  std::string::npos);
        EXPECT_EQ(r.data.size(), 40 - in_second);
    }

    // A zstd chunk that claims more than 256 times its compressed size.
    std::string zstd = sample(mcap_compression_t::zstd);
    size_t chunk = chunks(zstd)[1] + 9;
    uint64_t compressed;
    memcpy(&compressed, zstd.data() + chunk + 8 + 8 + 8 + 4 + 4 + 4, 8);
    uint64_t too_many = compressed * 256 + 4097;
    memcpy(zstd.data() + chunk + 16, &too_many, 8);
    read_t ratio = read(zstd);
    EXPECT_EQ(ratio.report.bad_records, 1u);
    EXPECT_NE(ratio.report.first_problem.find("more than 256 times"), std::string::npos);

    // A record that claims 4 GiB past the end of the file.
    std::string claim = bytes.substr(0, at[3]);
    claim[at[2] + 1 + 4] = 1;
    EXPECT_EQ(read(claim).report.cut_at, at[2]);

    EXPECT_THROW(read("not an MCAP file at all"), std::runtime_error);
}
