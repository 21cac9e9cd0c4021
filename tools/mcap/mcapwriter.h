#pragma once

// Writes an MCAP file as messages arrive: schemas and channels, messages in
// chunks (uncompressed, zstd or lz4) each followed by its message indexes,
// and a summary with the schemas, channels, statistics and chunk indexes.

#include "mcap.h"

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

struct mcap_writer_options_t {
    mcap_compression_t compression = mcap_compression_t::zstd;
    size_t chunk_size = 4u << 20;       // a chunk closes at this many bytes
    uint64_t chunk_ns = 1'000'000'000;  // or once it spans this much log time
};

// A chunk closes when it reaches its size or its time span, so that a file
// cut off by a crash is readable up to its last complete chunk; memory holds
// at most one chunk. Failures throw std::runtime_error with a one-line
// reason that names the file.
class McapWriter {
public:
    McapWriter(const std::string& path, const std::string& library,
               const mcap_writer_options_t& options);
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
    // Closes the open chunk when its first message is older than the chunk
    // time at `now` (on the log time's clock): a recorder whose messages stop
    // arriving still puts each of them in a complete chunk in time.
    void tick(uint64_t now);
    // Writes the last chunk, the summary and the footer, and closes the file.
    void finish();

private:
    void flushChunk();
    void put(std::string_view bytes);
    void emit(uint8_t opcode, const std::string& content);

    int fd_ = -1;
    std::string path_;
    mcap_writer_options_t options_;
    uint64_t offset_ = 0;
    uint32_t data_crc_ = 0;
    std::string schema_records_, channel_records_, chunk_indexes_;
    uint16_t schema_count_ = 0, channel_count_ = 0;
    uint32_t chunk_count_ = 0;
    uint64_t message_count_ = 0, first_time_ = UINT64_MAX, last_time_ = 0;
    std::map<uint16_t, uint64_t> channel_counts_;
    // The open chunk: its records, when its first message was written, and
    // per channel (log time, offset).
    std::string chunk_;
    uint64_t chunk_start_ = UINT64_MAX, chunk_end_ = 0, chunk_opened_ = 0;
    std::map<uint16_t, std::vector<std::pair<uint64_t, uint64_t>>> chunk_index_;
};
