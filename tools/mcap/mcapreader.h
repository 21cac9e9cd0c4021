#pragma once

// Reads the messages of an MCAP file in log-time order, whatever order and
// overlap its chunks and messages have in the file, holding only the chunks
// whose times overlap the message being read. A first pass (mcapindex)
// finds where the messages are and what times they really hold; the chunks
// are then read again as the merge reaches them, each once.

#include "mcapindex.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

// Chunks whose log times overlap more deeply than the reader may hold.
struct mcap_overlap_error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct mcap_reader_options_t {
    size_t max_open_chunks = 4;  // chunks held at once; more overlapping is an error
};

// Every length and size in the file is checked against the file, the record
// that holds it and a chunk's limit before anything is allocated for it: a
// chunk holds at most 32 MiB uncompressed, 256 times its compressed size,
// and schemas and channels are kept up to 16 MiB of memory. A file that is
// not MCAP, or that cannot be read, throws std::runtime_error with a reason
// that names the file.
class McapReader {
public:
    explicit McapReader(const std::string& path, const mcap_reader_options_t& options = {});
    // The descriptor is borrowed.
    McapReader(int fd, const std::string& name, const mcap_reader_options_t& options = {});
    ~McapReader();
    McapReader(const McapReader&) = delete;
    McapReader& operator=(const McapReader&) = delete;

    // The schemas (their names and encodings, not their data) and channels,
    // wherever in the file they stand, and the messages of each channel id.
    const std::map<uint16_t, mcap_schema_t>& schemas() const { return index_.definitions.schemas; }
    const std::map<uint16_t, mcap_channel_t>& channels() const {
        return index_.definitions.channels;
    }
    const std::map<uint16_t, mcap_channel_count_t>& counts() const { return index_.counts; }
    const mcap_read_report_t& report() const { return report_; }
    // The earliest and latest log time of any message; 0 without messages.
    uint64_t startTime() const { return index_.sources.empty() ? 0 : index_.first; }
    uint64_t endTime() const { return index_.last; }

    // Reads only the messages of this channel id.
    void select(uint16_t channel_id);
    // Keeps only messages logged from `from` to `to` nanoseconds after the
    // start time; chunks outside are not read again.
    void window(uint64_t from, uint64_t to);
    // The next message in log-time order (in file order where times are
    // equal); false at the end. Its data stays valid until the next call.
    // Throws mcap_overlap_error when more chunks than the limit overlap.
    bool next(mcap_message_t& message);
    // Reads again from the earliest message.
    void rewind();

private:
    // A message in a read chunk: its log time, where its content starts and
    // its size.
    struct entry_t {
        uint64_t time;
        uint32_t at, size;
    };
    // A chunk being merged, or a run of messages outside chunks read one
    // message at a time.
    struct open_t {
        const mcap_source_t* source;
        std::string records;            // a chunk's
        std::vector<entry_t> messages;  // a chunk's wanted messages by log time
        size_t next = 0;
        uint64_t pos = 0;                                    // a run's next record
        uint64_t head_time = 0, head_at = 0, head_size = 0;  // a run's next wanted message
    };

    void open();
    bool wanted(uint16_t channel, uint64_t time) const;
    void openDue();
    void openChunk(const mcap_source_t& source);
    void openRun(const mcap_source_t& source);
    bool advanceRun(open_t& run);
    uint64_t headTime(const open_t& o) const;
    // Where the next message stands in the file: the chunk's offset and its
    // place in the chunk, or its own offset.
    std::pair<uint64_t, uint32_t> headPos(const open_t& o) const;
    bool done(const open_t& o) const;
    size_t openChunks() const;

    mcap_file_t file_;
    bool owned_ = false;
    mcap_reader_options_t options_;
    mcap_index_t index_;
    mcap_read_report_t report_;
    std::optional<uint16_t> channel_;
    uint64_t from_ = 0, to_ = UINT64_MAX;  // absolute log times
    uint64_t window_from_ = 0, window_to_ = UINT64_MAX;
    std::vector<uint32_t> order_;  // the sources in the window, by their first log time
    size_t pending_ = 0;           // the first of order_ not opened yet
    std::vector<std::unique_ptr<open_t>> open_;
    std::string message_;  // the content of a message read from outside a chunk
    uint64_t last_ = 0;    // the log time of the message read last
};
