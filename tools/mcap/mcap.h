#pragma once

// A writer and a reader for the part of the MCAP container format that the
// tools record and replay: one or more schemas and channels, messages in
// chunks (uncompressed, zstd or lz4) with their message indexes, and a
// summary section with the schemas, channels, statistics and chunk indexes.
// It knows nothing of the radar or of D-Bus.

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

enum class mcap_compression_t { none, zstd, lz4 };

// "none", "zstd" or "lz4"; nothing for other names.
std::optional<mcap_compression_t> mcap_compression_named(std::string_view name);

struct mcap_schema_t {
    uint16_t id = 0;
    std::string name;
    std::string encoding;
    std::string data;
};

struct mcap_channel_t {
    uint16_t id = 0;
    uint16_t schema_id = 0;
    std::string topic;
    std::string message_encoding;
    std::map<std::string, std::string> metadata;
};

struct mcap_message_t {
    uint16_t channel_id = 0;
    uint32_t sequence = 0;
    uint64_t log_time = 0;
    uint64_t publish_time = 0;
    std::string_view data;
};

// Writes a file as messages arrive. Schemas and channels are written when
// they are added, messages in chunks of about `chunk_size` bytes, each
// followed by its message indexes, so that a file cut off by a crash is
// readable up to its last complete chunk; memory holds at most one chunk.
// Failures throw std::runtime_error with a one-line reason.
class McapWriter {
public:
    McapWriter(const std::string& path, const std::string& library, mcap_compression_t compression,
               size_t chunk_size = 4u << 20);
    // Finishes the file if finish() was not called; errors are swallowed.
    ~McapWriter();
    McapWriter(const McapWriter&) = delete;
    McapWriter& operator=(const McapWriter&) = delete;

    uint16_t addSchema(const std::string& name, const std::string& encoding,
                       const std::string& data);
    uint16_t addChannel(uint16_t schema_id, const std::string& topic,
                        const std::string& message_encoding,
                        const std::map<std::string, std::string>& metadata);
    void write(const mcap_message_t& message);
    // Writes the last chunk, the summary and the footer, and closes the file.
    void finish();

private:
    void flushChunk();
    void put(std::string_view bytes);
    void emit(uint8_t opcode, const std::string& content);

    int fd_ = -1;
    std::string path_;
    mcap_compression_t compression_;
    size_t chunk_size_;
    uint64_t offset_ = 0;
    uint32_t data_crc_ = 0;
    std::string schema_records_, channel_records_, chunk_indexes_;
    uint16_t schema_count_ = 0, channel_count_ = 0;
    uint32_t chunk_count_ = 0;
    uint64_t message_count_ = 0, first_time_ = UINT64_MAX, last_time_ = 0;
    std::map<uint16_t, uint64_t> channel_counts_;
    // The open chunk: its records and, per channel, (log time, offset).
    std::string chunk_;
    uint64_t chunk_start_ = UINT64_MAX, chunk_end_ = 0;
    std::map<uint16_t, std::vector<std::pair<uint64_t, uint64_t>>> chunk_index_;
};

// What reading a file found beside its messages.
struct mcap_read_report_t {
    bool indexed = false;         // the summary's chunk indexes were used
    uint64_t cut_at = 0;          // without an index: where the last whole record ends
    size_t chunks = 0;            // chunks read
    size_t bad_chunks = 0;        // chunks skipped: wrong CRC, undecodable, too big
    uint64_t other_messages = 0;  // in the chunks read, but of channels not asked for
};

// Reads a file through its summary and chunk indexes or, when it has none
// (a file cut off by a crash), by scanning it for complete records. Every
// length in the file is checked against the file's size before anything is
// allocated for it. A file that is not MCAP throws std::runtime_error.
class McapReader {
public:
    explicit McapReader(const std::string& path);
    explicit McapReader(int fd);  // borrowed
    ~McapReader();
    McapReader(const McapReader&) = delete;
    McapReader& operator=(const McapReader&) = delete;

    const std::map<uint16_t, mcap_schema_t>& schemas() const { return schemas_; }
    const std::map<uint16_t, mcap_channel_t>& channels() const { return channels_; }
    const mcap_read_report_t& report() const { return report_; }
    // The earliest log time of the file's messages (from its index when it has one).
    uint64_t startTime() const { return start_time_; }

    // Visits the messages of `channels` (all when empty) with log times in
    // [start, end], chunk by chunk; chunks outside the window or without
    // those channels are not read at all when the file has an index.
    void readMessages(const std::set<uint16_t>& channels, uint64_t start, uint64_t end,
                      const std::function<void(const mcap_message_t&)>& visit);

private:
    struct block_t {
        uint64_t offset, length;      // the chunk or message record
        uint64_t start, end;          // its log time range
        std::set<uint16_t> channels;  // empty: not known
        bool chunk;
    };

    void open();
    bool readSummary();
    void scan();
    std::string readAt(uint64_t offset, uint64_t length);
    void keepRecord(uint8_t opcode, std::string_view content);
    void readChunk(const block_t& block, const std::set<uint16_t>& channels, uint64_t start,
                   uint64_t end, const std::function<void(const mcap_message_t&)>& visit);

    int fd_ = -1;
    bool owned_ = false;
    uint64_t size_ = 0;
    uint64_t start_time_ = 0;
    std::map<uint16_t, mcap_schema_t> schemas_;
    std::map<uint16_t, mcap_channel_t> channels_;
    std::vector<block_t> blocks_;
    mcap_read_report_t report_;
};
