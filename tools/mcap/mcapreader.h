#pragma once

// Reads an MCAP file as a stream: its data section in file order, a chunk
// or two at a time, whatever the file's length. The summary and its indexes
// are not needed, so files without chunks, without summary, cut off by a
// crash or with indexes that lie read alike, and no chunk is read twice.

#include "mcap.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

// What reading the data section found beside its messages.
struct mcap_read_report_t {
    bool finished = false;      // the data section ended with its end record
    uint64_t cut_at = 0;        // not finished: where the last whole record ends
    size_t chunks = 0;          // chunks read
    size_t bad_records = 0;     // chunks and records skipped: too big, wrong CRC, undecodable
    std::string first_problem;  // why the first of them was skipped
    uint64_t last_time = 0;     // the latest log time that the records read so far claim
};

// Every length and size in the file is checked against the file, the record
// that holds it and a chunk's limit before anything is allocated for it: a
// chunk holds at most 32 MiB uncompressed, 256 times its compressed size,
// and schemas and channels are kept up to 16 MiB of their fields. A file
// that is not MCAP, or that cannot be read, throws std::runtime_error with a
// reason that names the file.
class McapReader {
public:
    explicit McapReader(const std::string& path);
    McapReader(int fd, const std::string& name);  // the descriptor is borrowed
    ~McapReader();
    McapReader(const McapReader&) = delete;
    McapReader& operator=(const McapReader&) = delete;

    // The schemas (their names and encodings, not their data) and channels
    // of the records read so far.
    const std::map<uint16_t, mcap_schema_t>& schemas() const { return schemas_; }
    const std::map<uint16_t, mcap_channel_t>& channels() const { return channels_; }
    const mcap_read_report_t& report() const { return report_; }
    // The log time of the first chunk or message; 0 before one was read.
    uint64_t startTime() const { return origin_.value_or(0); }

    // Keeps only messages logged from `from` to `to` nanoseconds after the
    // start time; chunks outside are skipped without decompressing them.
    void window(uint64_t from, uint64_t to);
    // The next message in log time order, merging chunks whose times
    // overlap two at a time; false at the end of the data. Its data stays
    // valid until the next call.
    bool next(mcap_message_t& message);
    // Reads again from the start of the data section.
    void rewind();

private:
    // A chunk or message record found and not yet read, and its time range.
    struct found_t {
        uint64_t offset, length, start, end;
        bool chunk;
    };
    // A message in a read chunk: its log time, where its fields start and their size.
    struct entry_t {
        uint64_t time;
        uint32_t at, size;
    };
    struct open_chunk_t {
        std::string records;
        std::vector<entry_t> messages;  // by log time
        size_t next = 0;
    };

    void open();
    std::string readAt(uint64_t offset, uint64_t length);
    bool find();
    void openFound();
    bool decodeChunk(const found_t& found, open_chunk_t& out);
    bool index(open_chunk_t& out, const std::string& where);
    bool skip(const std::string& problem);
    void keepRecord(uint8_t opcode, std::string_view content);
    uint64_t headTime() const;

    int fd_ = -1;
    bool owned_ = false;
    std::string name_;
    uint64_t size_ = 0;
    uint64_t pos_ = 0;  // the next record of the data section
    bool ended_ = false;
    std::optional<uint64_t> origin_;
    uint64_t from_ = 0, to_ = UINT64_MAX;
    std::optional<found_t> found_;
    std::vector<open_chunk_t> open_;
    std::map<uint16_t, mcap_schema_t> schemas_;
    std::map<uint16_t, mcap_channel_t> channels_;
    size_t kept_ = 0;  // bytes of their fields
    mcap_read_report_t report_;
};
